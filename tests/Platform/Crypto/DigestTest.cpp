#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Platform/HmacUtil.h"
#include "Platform/Sha256Util.h"

namespace {

using Lum::Core::HmacUtil;
using Lum::Core::Sha256Util;

TEST(Sha256Util, KnownVectors) {
  const std::pair<std::string, std::string> cases[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
  };
  for (const auto& c : cases) {
    std::string out = "stale";
    Sha256Util::Hash(c.first, out);
    EXPECT_EQ(out, c.second) << "input of length " << c.first.size();
  }
}

// RFC 4231 cases 2 and 6 (the key longer than a block is hashed first); the
// MAC comes Base64-encoded.
TEST(HmacUtil, Rfc4231Vectors) {
  const struct {
    std::vector<unsigned char> key;
    std::string data;
    std::string mac;
  } cases[] = {
      {{'J', 'e', 'f', 'e'},
       "what do ya want for nothing?",
       "W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM="},
      {std::vector<unsigned char>(131, 0xaa),
       "Test Using Larger Than Block-Size Key - Hash Key First",
       "YOQxWR7gtn8Niiaqy/W3f44LxiE3KMUUBUYEDw7jf1Q="},
  };
  for (const auto& c : cases) {
    std::string out = "stale";
    HmacUtil::GetHmacSha256(c.key, c.data, out);
    EXPECT_EQ(out, c.mac) << c.data;
  }
}

}  // namespace
