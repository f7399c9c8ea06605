#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Platform/HmacUtil.h"
#include "Platform/Sha256Util.h"

namespace {

using Lum::Core::HmacUtil;
using Lum::Core::Sha256Util;

// The outputs start "stale": each must be replaced, not appended to.
TEST(Digests, KnownVectors) {
  const std::pair<std::string, std::string> hashes[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
  };
  for (const auto& [input, hash] : hashes) {
    std::string out = "stale";
    Sha256Util::Hash(input, out);
    EXPECT_EQ(out, hash) << "input of length " << input.size();
  }
  // RFC 4231 cases 2 and 6 (a key longer than a block is hashed first), and
  // an empty key and text; the MAC comes Base64-encoded.
  const struct {
    std::vector<unsigned char> key;
    std::string data, mac;
  } macs[] = {
      {{'J', 'e', 'f', 'e'},
       "what do ya want for nothing?",
       "W9zBRr9gdU5qBCQmCJV1x1oAPwidJzmDnexYuWTsOEM="},
      {std::vector<unsigned char>(131, 0xaa),
       "Test Using Larger Than Block-Size Key - Hash Key First",
       "YOQxWR7gtn8Niiaqy/W3f44LxiE3KMUUBUYEDw7jf1Q="},
      {{}, "", "thNnmggU2ex3L5XXeMNfxf8Wl8STcVZTxscSFEKSxa0="},
  };
  for (const auto& c : macs) {
    std::string out = "stale";
    HmacUtil::GetHmacSha256(c.key, c.data, out);
    EXPECT_EQ(out, c.mac) << c.data;
  }
}

}  // namespace
