#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <random>
#include <string>

#include "Platform/Base64.h"
#include "Platform/Base64Util.h"

namespace {

using Lum::Core::Base64Util;

std::string Encode(const std::string& bytes) {
  char* out = nullptr;
  unsigned length = 12345;
  base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                static_cast<unsigned>(bytes.size()), out, length);
  EXPECT_NE(out, nullptr);
  if (out == nullptr) return "<null>";
  EXPECT_EQ(out[length], '\0');
  std::string text(out, length);
  free(out);
  return text;
}

std::string Decode(const std::string& text) {
  unsigned char* out = nullptr;
  unsigned length = 12345;
  base64_decode(text.data(), static_cast<unsigned>(text.size()), out, length);
  EXPECT_NE(out, nullptr);
  if (out == nullptr) return "<null>";
  EXPECT_EQ(out[length], '\0');
  std::string bytes(reinterpret_cast<char*>(out), length);
  free(out);
  return bytes;
}

// OpenSSL's block encoder as an independent reference.
std::string ReferenceEncode(const std::string& bytes) {
  std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<size_t>(length));
  return text;
}

struct Vector {
  std::string bytes;
  std::string text;
};

// RFC 4648 section 10, plus bytes that exercise the "+" and "/" characters.
const Vector kVectors[] = {
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
    {std::string("\xfb\xff\xbf", 3), "+/+/"},
    {std::string("\0\0\0\0", 4), "AAAAAA=="},
};

TEST(Base64, EncodesKnownVectors) {
  for (const auto& v : kVectors) {
    EXPECT_EQ(Encode(v.bytes), v.text) << "bytes of length " << v.bytes.size();
  }
}

TEST(Base64, DecodesKnownVectors) {
  for (const auto& v : kVectors) {
    EXPECT_EQ(Decode(v.text), v.bytes) << "text " << v.text;
  }
}

TEST(Base64, DecodingStopsAtFirstNonAlphabetCharacter) {
  const struct {
    std::string text;
    std::string bytes;
  } cases[] = {
      {"Zm9v\nYmFy", "foo"},       // line break ends the data
      {"Zm9vYmFy\r\n", "foobar"},  // trailing line break is harmless
      {"Zm9v YmFy", "foo"},        // so does a space
      {"Zm9v*YmFy", "foo"},        // and any other character outside the alphabet
      {"Zm8=Zm9v", "fo"},          // "=" ends the data even mid-text
      {"Zg==Zm9v", "f"},
      {"=Zm9v", ""},
      {"Zm9vY", "foo"},  // a lone trailing character carries no whole byte
      {"Zg", "f"},       // partial groups without padding
      {"Zm8", "fo"},
      {"Zm9vYg", "foob"},
      {"Zm9vYmE", "fooba"},
      {std::string("Zm9v\0YmFy", 9), "foo"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Decode(c.text), c.bytes) << "text " << c.text;
  }
}

TEST(Base64, DecodeHonoursGivenLengthNotTerminator) {
  unsigned char* out = nullptr;
  unsigned length = 0;
  base64_decode("Zm9vYmFy", 4, out, length);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(out), length), "foo");
  free(out);
}

TEST(Base64, RoundTripsRandomBytesAndMatchesReference) {
  std::mt19937 random(20240611);
  for (int round = 0; round < 300; ++round) {
    std::string bytes(random() % 700, '\0');
    for (char& b : bytes) b = static_cast<char>(random());
    const std::string text = Encode(bytes);
    ASSERT_EQ(text, ReferenceEncode(bytes)) << "length " << bytes.size();
    ASSERT_EQ(Decode(text), bytes) << "length " << bytes.size();
  }
}

TEST(Base64Util, EncodeAndDecodeStrings) {
  unsigned length = 0;
  unsigned char* out = nullptr;
  Base64Util::Encode(std::string("fooba\0r", 7), length, out);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(out), length), "Zm9vYmEAcg==");
  EXPECT_EQ(out[length], '\0');
  free(out);

  Base64Util::Decode("Zm9vYmEAcg==", length, out);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(out), length), std::string("fooba\0r", 7));
  free(out);
}

}  // namespace
