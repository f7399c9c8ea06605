#include <gtest/gtest.h>

#include "tools/backend/MultipartParser.h"

namespace LumTest {
namespace {

using Lum::Tools::MultipartParser;
using Lum::Tools::MultipartPart;

TEST(MultipartParserTest, BoundaryComesFromFormDataTypesOnly) {
  struct Case {
    const char* contentType;
    const char* boundary;
  } cases[] = {
      {"multipart/form-data; boundary=----abc123", "----abc123"},
      {"Multipart/Form-Data; charset=x; boundary=\"quoted b\"", "quoted b"},
      {"multipart/form-data", ""},
      {"application/json; boundary=abc", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(MultipartParser::Boundary(c.contentType), c.boundary) << c.contentType;
  }
}

TEST(MultipartParserTest, PartsKeepNamesFileNamesAndBinaryContent) {
  const std::string binary("a\r\n--b\0z", 8);  // looks like a delimiter, but is not one
  const std::string body =
      "preamble\r\n--XyZ\r\n"
      "Content-Disposition: form-data; name=\"data\"; filename=\"data\"\r\n"
      "Content-Type: application/octet-stream\r\n\r\n" +
      binary +
      "\r\n--XyZ\r\n"
      "Content-Disposition: form-data; name=\"token\"\r\n\r\n"
      "tok\r\n--XyZ--\r\n";
  std::vector<MultipartPart> parts;
  ASSERT_TRUE(MultipartParser::Parse("XyZ", body, &parts));
  ASSERT_EQ(parts.size(), 2u);
  EXPECT_EQ(parts[0].name, "data");
  EXPECT_EQ(parts[0].filename, "data");
  EXPECT_EQ(parts[0].contentType, "application/octet-stream");
  EXPECT_EQ(parts[0].content, binary);
  EXPECT_EQ(parts[1].name, "token");
  EXPECT_EQ(parts[1].filename, "");
  EXPECT_EQ(parts[1].content, "tok");
}

TEST(MultipartParserTest, BrokenFramingIsReported) {
  const char* bodies[] = {
      "no delimiter at all",
      "--XyZ\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\nno end",
      "--XyZ\r\nheaders never end",
      "--XyZjunk",
  };
  for (const char* body : bodies) {
    std::vector<MultipartPart> parts;
    EXPECT_FALSE(MultipartParser::Parse("XyZ", body, &parts)) << body;
  }
  std::vector<MultipartPart> parts;
  EXPECT_FALSE(MultipartParser::Parse("", "--\r\n", &parts));
}

}  // namespace
}  // namespace LumTest
