#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "Platform/Base64.h"

namespace {

std::string Encode(const std::string& bytes) {
  char* out = nullptr;
  unsigned length = 12345;
  base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()),
                static_cast<unsigned>(bytes.size()), out, length);
  if (out == nullptr) return "<null>";
  EXPECT_EQ(out[length], '\0');
  std::string text(out, length);
  free(out);
  return text;
}

// Decodes the first `length` characters of `text` (all by default).
std::string Decode(const std::string& text, size_t length = std::string::npos) {
  unsigned char* out = nullptr;
  unsigned outLength = 12345;
  base64_decode(text.data(), static_cast<unsigned>(std::min(length, text.size())), out, outLength);
  if (out == nullptr) return "<null>";
  EXPECT_EQ(out[outLength], '\0');
  std::string bytes(reinterpret_cast<char*>(out), outLength);
  free(out);
  return bytes;
}

TEST(Base64, KnownVectorsBothWays) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"f", "Zg=="},  // 1, 2 and 3 bytes give 4 characters with 2, 1 and no "="
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foobar", "Zm9vYmFy"},
      {std::string("\xfb\xff\xbf", 3), "+/+/"},
      {std::string("\0\0\0\0", 4), "AAAAAA=="},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Encode(c.first), c.second) << "bytes of length " << c.first.size();
    EXPECT_EQ(Decode(c.second), c.first) << "text " << c.second;
  }
}

TEST(Base64, DecodingStopsAtFirstNonAlphabetCharacter) {
  const std::pair<std::string, std::string> cases[] = {
      {"Zm9v\nYmFy", "foo"},       // line break ends the data
      {"Zm9vYmFy\r\n", "foobar"},  // trailing line break is harmless
      {"Zm9v*YmFy", "foo"},        // so does any other character outside the alphabet
      {"Zm8=Zm9v", "fo"},          // "=" ends the data even mid-text
      {"Zm9vYg", "foob"},          // partial groups without padding
      {"Zm9vYmE", "fooba"},
      {"Zm9vY", "foo"},  // a lone trailing character carries no whole byte
      {std::string("Zm9v\0YmFy", 9), "foo"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Decode(c.first), c.second) << "text " << c.first;
  }
  EXPECT_EQ(Decode("Zm9vYmFy", 4), "foo");  // the given length, not the terminator
}

}  // namespace
