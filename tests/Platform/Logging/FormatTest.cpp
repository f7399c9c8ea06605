#include <gtest/gtest.h>

#include <string>

#include "Platform/LongFormat.h"
#include "Platform/MediumFormat.h"
#include "Platform/ShortFormat.h"
#include "Platform/SyslogAppender.h"
#include "Platform/TestFormat.h"

namespace Lum {
namespace Core {
namespace {

// 2024-03-01T12:00:00Z plus 3456 microseconds (milliseconds and microseconds
// both need zero padding), on a fixed thread id.
LoggingEvent FixedEvent(int service, int category, int severity, const std::string& message,
                        const char* function = "wait") {
  LoggingEvent event("Platform/TimedSem", 85, function, service, category, severity, message);
  event.timestamp.sec = 1709294400;
  event.timestamp.usec = 3456;
  event.threadId = "60e4f5b6";
  return event;
}

TEST(FormatTest, LinesAreByteExact) {
  LoggingEvent event = FixedEvent(0, 0, 2, "Problem: 4");
  EXPECT_EQ("core state      error   Problem: 4\n", ShortFormat().format(event));
  EXPECT_EQ("12:00:00.003 core state      error   wait()               Problem: 4\n",
            MediumFormat().format(event));
  EXPECT_EQ(
      "[LUM] 2024-03-01T12:00:00.003456Z 60e4f5b6 core state      error   "
      "Platform/TimedSem:85-{wait}" +
          std::string(75 - 27, ' ') + " Problem: 4\n",
      LongFormat().format(event));
  EXPECT_EQ(R"({"category":"test","file":"Platform/TimedSem","line":85,"message":{"k":[1,2]},)"
            R"("method":"wait","service":"sv","severity":"info","threadName":"60e4f5b6",)"
            R"("timeStamp":"2024-03-01T12:00:00.003456Z"})"
            "\n",
            TestFormat().format(FixedEvent(2, 4, 4, R"({"k": [1, 2]})")));
}

// Category 6 and service -1 print "UNKNOWN"; fields wider than their column
// are kept whole.
TEST(FormatTest, OverlongFieldsAreKeptWhole) {
  std::string function(60, 'f');
  LoggingEvent event = FixedEvent(-1, 6, 0, "end", function.c_str());
  EXPECT_EQ("UNKNOWN UNKNOWN    disabled end\n", ShortFormat().format(event));
  EXPECT_EQ("12:00:00.003 UNKNOWN UNKNOWN    disabled " + function + "() end\n",
            MediumFormat().format(event));
  EXPECT_EQ(
      "[LUM] 2024-03-01T12:00:00.003456Z 60e4f5b6 UNKNOWN UNKNOWN    disabled "
      "Platform/TimedSem:85-{" +
          function + "} end\n",
      LongFormat().format(event));
}

TEST(FormatTest, TestFormatEmbedsStrictJsonOrMarksItBad) {
  const std::pair<std::string, std::string> cases[] = {
      {"[true,null]", "[true,null]"},
      {"word", R"("***BAD JSON***")"},
      {R"({"a":1} tail)", R"("***BAD JSON***")"},   // trailing text
      {R"({"a":1,"a":2})", R"("***BAD JSON***")"},  // duplicate key
      // deeper than the parser goes: it would throw rather than fail
      {std::string(5000, '[') + std::string(5000, ']'), R"("***BAD JSON***")"},
  };
  for (const auto& c : cases) {
    std::string line = TestFormat().format(FixedEvent(2, 4, 4, c.first));
    EXPECT_NE(std::string::npos, line.find(",\"message\":" + c.second + ",\"method\""))
        << c.first.substr(0, 20) << " -> " << line.substr(0, 200);
  }
}

TEST(SyslogAppenderTest, PriorityMappingIsKeptAsIs) {
  const std::pair<int, int> cases[] = {{-1000, 0}, {98, 0}, {99, 1}, {699, 7}, {100000, 7}};
  for (const auto& c : cases) {
    EXPECT_EQ(c.second, SyslogAppender::ToSyslogPriority(c.first)) << c.first;
  }
}

}  // namespace
}  // namespace Core
}  // namespace Lum
