#include <set>
#include <string>

#include "Platform/StringSetUtil.h"
#include "Platform/StringUtil.h"
#include "gtest/gtest.h"

namespace {

using Lum::Core::StringSetUtil;
using Lum::Core::StringUtil;
using Set = std::set<std::string>;

// Lengths around the first buffer (2047 characters plus the terminator fit
// exactly, 2048 need the retry) and far past it; the arguments after the long
// one prove the retry formats with a fresh copy of the argument list.
TEST(StringUtil, FormsTextOfAnyLengthWhole) {
  for (size_t length : {0u, 1u, 2040u, 2046u, 2047u, 2048u, 2049u, 4096u, 100000u}) {
    std::string body(length, 'a');
    for (size_t i = 0; i < length; i += 97) body[i] = static_cast<char>('b' + i % 20);
    EXPECT_EQ(StringUtil::Form("%s", body.c_str()), body) << length;
    EXPECT_EQ(StringUtil::Form("%s|%d|%s", body.c_str(), -42, "end"), body + "|-42|end") << length;
  }
  EXPECT_EQ(StringUtil::Form("%2047d", 7).size(), 2047u);
  EXPECT_EQ(StringUtil::Form("%2048d", 7), std::string(2047, ' ') + "7");
}

TEST(StringUtil, FormatThatCannotBeFormattedGivesEmpty) {
  // A wide character that the "C" locale cannot convert makes vsnprintf fail.
  EXPECT_EQ(StringUtil::Form("x%lsy", L"\x20ac"), "");
}

TEST(StringSetUtil, SplitsTrimsAndSkipsEmptyItems) {
  const std::pair<const char*, Set> cases[] = {
      {"", {}},
      {",", {}},
      {" \t, \r\n", {}},
      {"a", {"a"}},
      {"b,a", {"a", "b"}},
      {"a,b,a", {"a", "b"}},
      {" a , b\t", {"a", "b"}},
      {",,a,,b,", {"a", "b"}},
      {"tv.power, tv.source ,app start", {"app start", "tv.power", "tv.source"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(StringSetUtil::CsvStringToStringSet(c.first), c.second) << '"' << c.first << '"';
  }
}

TEST(StringSetUtil, JoinsInSetOrderAndRoundTrips) {
  EXPECT_EQ(StringSetUtil::StringSetToCsvString({}), "");
  EXPECT_EQ(StringSetUtil::StringSetToCsvString({"only"}), "only");
  const Set ids{"tv.sw", "app.start", "tv.power", "Z"};
  const std::string csv = StringSetUtil::StringSetToCsvString(ids);
  EXPECT_EQ(csv, "Z,app.start,tv.power,tv.sw");
  EXPECT_EQ(StringSetUtil::CsvStringToStringSet(csv), ids);
}

}  // namespace
