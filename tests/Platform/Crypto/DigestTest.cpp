#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "Platform/HmacUtil.h"
#include "Platform/Sha256Util.h"

namespace {

using Lum::Core::HmacUtil;
using Lum::Core::Sha256Util;

std::string Sha256(const std::string& in) {
  std::string out = "stale";
  Sha256Util::Hash(in, out);
  return out;
}

std::vector<unsigned char> FromHex(const std::string& hex) {
  std::vector<unsigned char> bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

std::string HexToBase64(const std::string& hex) {
  const std::vector<unsigned char> bytes = FromHex(hex);
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  text.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                                  bytes.data(), static_cast<int>(bytes.size()))));
  return text;
}

TEST(Sha256Util, KnownVectors) {
  const struct {
    std::string in;
    std::string hex;
  } cases[] = {
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
      // One million "a": the long-message vector of FIPS 180-2, about 1 MB.
      {std::string(1000000, 'a'),
       "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Sha256(c.in), c.hex) << "input of length " << c.in.size();
  }
}

// RFC 4231 test cases (case 5 truncates its output and does not apply).
TEST(HmacUtil, Rfc4231Vectors) {
  const struct {
    std::string keyHex;
    std::string data;
    std::string macHex;
  } cases[] = {
      {"0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b", "Hi There",
       "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
      {"4a656665", "what do ya want for nothing?",
       "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
      {std::string(40, 'a'), std::string(50, '\xdd'),
       "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe"},
      {"0102030405060708090a0b0c0d0e0f10111213141516171819", std::string(50, '\xcd'),
       "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b"},
      {std::string(262, 'a'), "Test Using Larger Than Block-Size Key - Hash Key First",
       "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
      {std::string(262, 'a'),
       "This is a test using a larger than block-size key and a larger than block-size data. "
       "The key needs to be hashed before being used by the HMAC algorithm.",
       "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2"},
      // An empty key is a valid HMAC key.
      {"", "", "b613679a0814d9ec772f95d778c35fc5ff1697c493715653c6c712144292c5ad"},
  };
  for (const auto& c : cases) {
    std::string out = "stale";
    HmacUtil::GetHmacSha256(FromHex(c.keyHex), c.data, out);
    EXPECT_EQ(out, HexToBase64(c.macHex)) << "key " << c.keyHex.substr(0, 16);
    EXPECT_EQ(out.size(), 44u);
  }
}

}  // namespace
