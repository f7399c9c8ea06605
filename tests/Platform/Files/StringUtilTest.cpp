#include <set>
#include <string>

#include "Platform/StringSetUtil.h"
#include "Platform/StringUtil.h"
#include "gtest/gtest.h"

namespace {

using Lum::Core::StringSetUtil;
using Lum::Core::StringUtil;
using Set = std::set<std::string>;

// 2047 characters plus the terminator fit the first buffer, 2048 need the
// retry; the arguments after the long one prove the retry formats with a
// fresh copy of the argument list.
TEST(StringUtil, FormsTextOfAnyLengthWhole) {
  for (size_t length : {0u, 2047u, 2048u, 2049u, 100000u}) {
    std::string body(length, 'a');
    for (size_t i = 0; i < length; i += 97) body[i] = static_cast<char>('b' + i % 20);
    EXPECT_EQ(StringUtil::Form("%s|%d|%s", body.c_str(), -42, "end"), body + "|-42|end") << length;
  }
}

TEST(StringUtil, AcceptsOnlyWellFormedUtf8) {
  const std::pair<std::string, bool> cases[] = {
      {"", true},
      {"plain", true},
      {"\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x93\xBA \xF4\x8F\xBF\xBF", true},  // up to U+10FFFF
      {"\xED\x9F\xBF \xEE\x80\x80", true},  // either side of the surrogates
      {"x\xFF", false},
      {"\xC3", false},      // cut short
      {"\xE2\x82", false},  // cut short
      {"\xC3"
       "A",
       false},                         // not a continuation byte
      {"\xC0\xAF", false},             // overlong "/"
      {"\xE0\x9F\xBF", false},         // overlong
      {"\xF0\x8F\xBF\xBF", false},     // overlong
      {"\xED\xA0\x80", false},         // a surrogate
      {"\xF4\x90\x80\x80", false},     // beyond U+10FFFF
      {"\x80", false},                 // continuation without a lead
      {std::string("a\0b", 3), true},  // NUL is a character like any other
  };
  for (const auto& c : cases) {
    EXPECT_EQ(StringUtil::IsUtf8(c.first.data(), c.first.data() + c.first.size()), c.second)
        << testing::PrintToString(c.first);
  }
}

TEST(StringSetUtil, SplitsTrimsAndSkipsEmptyItems) {
  const std::pair<const char*, Set> cases[] = {
      {"", {}},
      {" \t, \r\n", {}},
      {"a,b,a", {"a", "b"}},
      {",,a,,b,", {"a", "b"}},
      {"tv.power, tv.source ,app start\t", {"app start", "tv.power", "tv.source"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(StringSetUtil::CsvStringToStringSet(c.first), c.second) << '"' << c.first << '"';
  }
}

TEST(StringSetUtil, JoinsInSetOrderAndRoundTrips) {
  EXPECT_EQ(StringSetUtil::StringSetToCsvString({}), "");
  const Set ids{"tv.sw", "app.start", "tv.power", "Z"};
  const std::string csv = StringSetUtil::StringSetToCsvString(ids);
  EXPECT_EQ(csv, "Z,app.start,tv.power,tv.sw");
  EXPECT_EQ(StringSetUtil::CsvStringToStringSet(csv), ids);
}

}  // namespace
