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

// Canonical texts are what encoding the bytes gives; decoding stops at the
// first character outside the alphabet.
TEST(Base64, KnownVectorsAndWhereDecodingStops) {
  const struct {
    std::string text, bytes;
    bool canonical = false;
  } cases[] = {
      {"", "", true},
      {"Zg==", "f", true},  // 1, 2 and 3 bytes give 4 characters with 2, 1 and no "="
      {"Zm8=", "fo", true},
      {"Zm9vYmFy", "foobar", true},
      {"+/+/", std::string("\xfb\xff\xbf", 3), true},
      {"AAAAAA==", std::string("\0\0\0\0", 4), true},
      {"Zm9v\nYmFy", "foo"},       // a line break ends the data
      {"Zm9vYmFy\r\n", "foobar"},  // so a trailing one is harmless
      {"Zm8=Zm9v", "fo"},          // "=" ends the data even mid-text
      {"Zm9vYmE", "fooba"},        // partial groups without padding
      {"Zm9vY", "foo"},            // a lone trailing character carries no whole byte
      {std::string("Zm9v\0YmFy", 9), "foo"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Decode(c.text), c.bytes) << "text " << c.text;
    EXPECT_EQ(c.canonical, Encode(c.bytes) == c.text) << c.text << " vs " << Encode(c.bytes);
  }
  EXPECT_EQ(Decode("Zm9vYmFy", 4), "foo");  // the given length, not the terminator
}

}  // namespace
