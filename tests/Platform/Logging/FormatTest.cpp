#include <gtest/gtest.h>

#include <string>

#include "LoggingTestSupport.h"
#include "Platform/FilterProperties.h"
#include "Platform/LongFormat.h"
#include "Platform/MediumFormat.h"
#include "Platform/ShortFormat.h"
#include "Platform/SyslogAppender.h"
#include "Platform/TestFormat.h"

namespace Lum {
namespace Core {
namespace {

using LumLoggingTest::Json;

// 2024-03-01T12:00:00Z plus 123456 microseconds, on a fixed thread id.
LoggingEvent FixedEvent(int service, int category, int severity, const std::string& message,
                        const char* function = "wait") {
  LoggingEvent event("Platform/TimedSem", 85, function, service, category, severity, message);
  event.timestamp.sec = 1709294400;
  event.timestamp.usec = 123456;
  event.threadId = "60e4f5b6";
  return event;
}

TEST(FilterPropertiesTest, NamesAndValuesRoundTripAndUnknownsAreMarked) {
  const char* services[] = {"core", "ds", "sv", "su", "drmp"};
  const char* categories[] = {"state", "flow", "clibapi", "webservice", "test", "supervisor"};
  const char* severities[] = {"disabled", "fatal", "error", "warning", "info", "debug", "trace"};
  for (int i = 0; i < 5; ++i) {
    EXPECT_STREQ(services[i], FilterProperties::GetServiceName(i));
    EXPECT_EQ(i, FilterProperties::GetServiceValue(services[i]));
  }
  for (int i = 0; i < 6; ++i) {
    EXPECT_STREQ(categories[i], FilterProperties::GetCategoryName(i));
    EXPECT_EQ(i, FilterProperties::GetCategoryValue(categories[i]));
  }
  for (int i = 0; i < 7; ++i) {
    EXPECT_STREQ(severities[i], FilterProperties::GetSeverityName(i));
    EXPECT_EQ(i, FilterProperties::GetSeverityValue(severities[i]));
  }
  EXPECT_STREQ("UNKNOWN", FilterProperties::GetServiceName(5));
  EXPECT_STREQ("UNKNOWN", FilterProperties::GetServiceName(-1));
  EXPECT_STREQ("UNKNOWN", FilterProperties::GetCategoryName(6));
  EXPECT_STREQ("UNKNOWN", FilterProperties::GetSeverityName(7));
  EXPECT_EQ(-1, FilterProperties::GetServiceValue("Core"));  // case-sensitive
  EXPECT_EQ(-1, FilterProperties::GetCategoryValue(""));
  EXPECT_EQ(-1, FilterProperties::GetSeverityValue("verbose"));
}

TEST(FormatTest, LinesAreByteExact) {
  LoggingEvent event = FixedEvent(0, 0, 2, "Problem: 4");
  EXPECT_EQ("core state      error   Problem: 4\n", ShortFormat().format(event));
  EXPECT_EQ("12:00:00.123 core state      error   wait()               Problem: 4\n",
            MediumFormat().format(event));
  EXPECT_EQ(
      "[LUM] 2024-03-01T12:00:00.123456Z 60e4f5b6 core state      error   "
      "Platform/TimedSem:85-{wait}" +
          std::string(75 - 27, ' ') + " Problem: 4\n",
      LongFormat().format(event));
}

TEST(FormatTest, SmallFractionsAreZeroPadded) {
  LoggingEvent event = FixedEvent(1, 1, 5, "m");
  event.timestamp.usec = 7;
  EXPECT_EQ(0u, MediumFormat().format(event).find("12:00:00.000 ds   flow       debug   "));
  EXPECT_EQ(0u,
            LongFormat().format(event).find("[LUM] 2024-03-01T12:00:00.000007Z 60e4f5b6 ds   "));
}

TEST(FormatTest, OverlongFieldsAreKeptWhole) {
  std::string function(30, 'f');
  LoggingEvent event = FixedEvent(-1, 6, 0, "end", function.c_str());
  // "UNKNOWN" exceeds the service width and "disabled" the severity width.
  EXPECT_EQ("UNKNOWN UNKNOWN    disabled end\n", ShortFormat().format(event));
  EXPECT_EQ("12:00:00.123 UNKNOWN UNKNOWN    disabled " + function + "() end\n",
            MediumFormat().format(event));
  std::string location = "Platform/TimedSem:85-{" + std::string(60, 'f') + "}";
  LoggingEvent longEvent = FixedEvent(4, 5, 6, "end", std::string(60, 'f').c_str());
  EXPECT_EQ(
      "[LUM] 2024-03-01T12:00:00.123456Z 60e4f5b6 drmp supervisor trace   " + location + " end\n",
      LongFormat().format(longEvent));
}

TEST(FormatTest, TestFormatEmbedsStrictJsonOrMarksItBad) {
  struct Case {
    const char* message;
    const char* expectedMessage;  // as JSON text
  };
  const Case cases[] = {
      {R"({"id":"x","n":[1,2]})", R"({"id":"x","n":[1,2]})"},
      {"[true,null]", "[true,null]"},
      {"word", R"("***BAD JSON***")"},
      {"42", R"("***BAD JSON***")"},                // a scalar is not a document
      {R"({"a":1} tail)", R"("***BAD JSON***")"},   // trailing text
      {R"({"a":1,"a":2})", R"("***BAD JSON***")"},  // duplicate key
      {"// note\n{}", R"("***BAD JSON***")"},       // comment
      {"", R"("***BAD JSON***")"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    std::string line = TestFormat().format(FixedEvent(2, 4, 4, c.message));
    ASSERT_FALSE(line.empty());
    EXPECT_EQ('\n', line.back());
    EXPECT_EQ(line.size() - 1, line.find('\n'));
    LumJson::Value parsed = Json(line);
    EXPECT_EQ(Json(c.expectedMessage), parsed["message"]);
    EXPECT_EQ("2024-03-01T12:00:00.123456Z", parsed["timeStamp"].asString());
    EXPECT_EQ("60e4f5b6", parsed["threadName"].asString());
    EXPECT_EQ("sv", parsed["service"].asString());
    EXPECT_EQ("test", parsed["category"].asString());
    EXPECT_EQ("info", parsed["severity"].asString());
    EXPECT_EQ("Platform/TimedSem", parsed["file"].asString());
    EXPECT_TRUE(parsed["line"].isInt());
    EXPECT_EQ(85, parsed["line"].asInt());
    EXPECT_EQ("wait", parsed["method"].asString());
    EXPECT_EQ(9u, parsed.size());
  }
}

TEST(FormatTest, TestFormatIsCompact) {
  std::string line = TestFormat().format(FixedEvent(0, 0, 1, R"({"k": [1, 2]})"));
  EXPECT_NE(std::string::npos, line.find(R"("message":{"k":[1,2]})")) << line;
  EXPECT_EQ(std::string::npos, line.find(": ")) << line;
}

TEST(SyslogAppenderTest, PriorityMappingIsKeptAsIs) {
  struct Case {
    int severity;
    int priority;
  };
  const Case cases[] = {{-1000, 0}, {-101, 0}, {-100, 0}, {0, 0},     {1, 0},
                        {6, 0},     {98, 0},   {99, 1},   {199, 2},   {698, 6},
                        {699, 7},   {798, 7},  {799, 7},  {100000, 7}};
  for (const Case& c : cases) {
    EXPECT_EQ(c.priority, SyslogAppender::ToSyslogPriority(c.severity)) << c.severity;
  }
}

}  // namespace
}  // namespace Core
}  // namespace Lum
