#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "LoggingTestSupport.h"
#include "Platform/Appender.h"
#include "Platform/Logger.h"
#include "Platform/ThreadUtil.h"
#include "support/TestSupport.h"

LUM_SOURCE_FILE("Platform/LoggerTest");

namespace Lum {
namespace Core {
namespace {

using LumLoggingTest::Element;
using LumLoggingTest::Json;
using LumLoggingTest::ReadLines;

constexpr int CORE = FilterProperties::SERVICE_CORE;
constexpr int DS = FilterProperties::SERVICE_DS;
constexpr int STATE = FilterProperties::CATEGORY_STATE;
constexpr int FLOW = FilterProperties::CATEGORY_FLOW;

class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override { logger().terminate(); }
  void TearDown() override { logger().terminate(); }

  static Logger& logger() { return Logger::Instance(); }

  // Initializes with one file appender (short format) for core/state.
  void initializeFile(const std::string& severity, const std::string& format = "short") {
    LumJson::Value loggers(LumJson::arrayValue);
    loggers.append(Element("file", path_, format, "core", "state", severity));
    logger().initialize(loggers);
  }

  LumTest::TempDir dir_;
  std::string path_ = dir_.file("agent.log");
};

TEST_F(LoggerTest, FilterThresholdPassesUpToConfiguredSeverity) {
  initializeFile("info");
  for (int severity = 1; severity <= 6; ++severity) {
    SCOPED_TRACE(severity);
    EXPECT_EQ(severity <= 4, logger().test(CORE, STATE, severity));
    LUM_LOG(CORE, STATE, severity, "line %d", severity);
  }
  EXPECT_FALSE(logger().test(CORE, FLOW, 1));
  EXPECT_FALSE(logger().test(DS, STATE, 1));
  EXPECT_FALSE(logger().test(-1, STATE, 1));
  EXPECT_FALSE(logger().test(CORE, 6, 1));
  std::vector<std::string> expected = {
      "core state      fatal   line 1", "core state      error   line 2",
      "core state      warning line 3", "core state      info    line 4"};
  EXPECT_EQ(expected, ReadLines(path_));
}

TEST_F(LoggerTest, FiltersSkipUnknownNamesAndLaterEntriesWin) {
  logger().initialize(Json(R"([{"type":"file","argument":")" + path_ + R"(","format":"short",
      "filters":[{"service":"core","category":"state","severity":"trace"},
                 {"service":"core","category":"state","severity":"warning"},
                 {"service":"core","category":"flow","severity":"loud"},
                 {"service":"Core","category":"flow","severity":"trace"},
                 {"service":"ds","category":"test"}]}])"));
  EXPECT_TRUE(logger().test(CORE, STATE, 3));
  EXPECT_FALSE(logger().test(CORE, STATE, 4));
  EXPECT_FALSE(logger().test(CORE, FLOW, 1));
  EXPECT_FALSE(logger().test(DS, FilterProperties::CATEGORY_TEST, 1));
}

TEST_F(LoggerTest, ElementsThatCreateNoAppender) {
  const char* configs[] = {
      R"({"loggers":[]})",  // an object, not an array: logging stays off
      R"([{"type":"console","argument":"stdlog","format":"short","filters":[]}])",
      R"([{"type":"pigeon","argument":"x","format":"short","filters":[]}])",
      R"([{"type":"file","argument":"","format":"short","filters":[]}])",
      R"([{"type":"file","format":"short","filters":[]}, 7, "text", null])",
  };
  for (const char* config : configs) {
    SCOPED_TRACE(config);
    logger().initialize(Json(config));
    EXPECT_TRUE(Appender::GetAllAppenders().empty());
    EXPECT_FALSE(logger().test(CORE, STATE, 0));
    logger().terminate();
  }
}

TEST_F(LoggerTest, LoggersAsObjectDisablesAllLogging) {
  logger().initialize(Json(R"({"type":"file","argument":")" + path_ +
                           R"(","format":"short","filters":[{"service":"core",
                           "category":"state","severity":"trace"}]})"));
  for (int service = -1; service <= 5; ++service) {
    for (int category = -1; category <= 6; ++category) {
      for (int severity = -1; severity <= 7; ++severity) {
        ASSERT_FALSE(logger().test(service, category, severity));
      }
    }
  }
  logger().log("Platform/LoggerTest", 1, "f", CORE, STATE, 1, "never");
  EXPECT_FALSE(std::filesystem::exists(path_));
  // Still uninitialized, so a proper configuration is taken afterwards.
  initializeFile("info");
  EXPECT_TRUE(logger().test(CORE, STATE, 4));
}

TEST_F(LoggerTest, SecondInitializeIsIgnored) {
  initializeFile("info");
  LumJson::Value other(LumJson::arrayValue);
  other.append(Element("file", dir_.file("other.log"), "short", "ds", "state", "trace"));
  logger().initialize(other);
  EXPECT_FALSE(std::filesystem::exists(dir_.file("other.log")));
  EXPECT_FALSE(logger().test(DS, STATE, 1));
  EXPECT_EQ(1u, Appender::GetAllAppenders().size());
}

TEST_F(LoggerTest, SameNameReplacesEarlierAppenderWithoutLeakingIt) {
  size_t descriptorsBefore = LumLoggingTest::OpenDescriptorCount();
  LumJson::Value loggers(LumJson::arrayValue);
  loggers.append(Element("file", path_, "short", "core", "state", "trace"));
  loggers.append(Element("file", path_, "short", "core", "state", "error"));
  logger().initialize(loggers);

  std::vector<Appender*> all = Appender::GetAllAppenders();
  ASSERT_EQ(1u, all.size());
  EXPECT_EQ("file-short-" + path_, all[0]->getName());
  EXPECT_TRUE(logger().test(CORE, STATE, 2));
  EXPECT_FALSE(logger().test(CORE, STATE, 3));
  LUM_LOG(CORE, STATE, 2, "once");
  EXPECT_EQ(std::vector<std::string>{"core state      error   once"}, ReadLines(path_));

  logger().terminate();
  EXPECT_EQ(descriptorsBefore, LumLoggingTest::OpenDescriptorCount());
}

TEST_F(LoggerTest, AppenderNamesJoinTypeFormatAndArgument) {
  LumJson::Value loggers(LumJson::arrayValue);
  loggers.append(Element("syslog", "lumtest", "test", "core", "test", "fatal"));
  loggers.append(Element("console", "stderr", "short", "core", "test", "fatal"));
  loggers.append(Element("file", "/nonexistent/dir/agent.log", "long", "core", "state", "info"));
  logger().initialize(loggers);
  std::vector<std::string> names;
  for (Appender* appender : Appender::GetAllAppenders()) {
    names.push_back(appender->getName());
  }
  std::vector<std::string> expected = {
      "console-short-stderr", "file-long-/nonexistent/dir/agent.log", "syslog-test-lumtest"};
  EXPECT_EQ(expected, names);
  // The unopenable file swallows the line without failing.
  LUM_LOG(CORE, STATE, 4, "nowhere");
  EXPECT_TRUE(logger().test(CORE, STATE, 4));
}

TEST_F(LoggerTest, AppenderWithoutKnownFormatSkipsLines) {
  LumJson::Value loggers(LumJson::arrayValue);
  loggers.append(Element("file", path_, "fancy", "core", "state", "trace"));
  logger().initialize(loggers);
  std::vector<Appender*> all = Appender::GetAllAppenders();
  ASSERT_EQ(1u, all.size());
  EXPECT_EQ("file-fancy-" + path_, all[0]->getName());
  EXPECT_EQ(nullptr, all[0]->getFormat());
  EXPECT_TRUE(logger().test(CORE, STATE, 6));
  LUM_LOG(CORE, STATE, 6, "dropped");
  EXPECT_EQ("", LumTest::ReadFile(path_));
}

TEST_F(LoggerTest, FiltersNotAnArrayLeaveAppenderSilent) {
  logger().initialize(Json(R"([{"type":"file","argument":")" + path_ +
                           R"(","format":"long","filters":{"service":"core"}}])"));
  ASSERT_EQ(1u, Appender::GetAllAppenders().size());
  EXPECT_EQ(nullptr, Appender::GetAllAppenders()[0]->getFormat());
  EXPECT_FALSE(logger().test(CORE, STATE, 1));
}

TEST_F(LoggerTest, InitializeTruncatesLogFile) {
  LumTest::WriteFile(path_, "left over from the previous run\n");
  initializeFile("info");
  EXPECT_EQ("", LumTest::ReadFile(path_));
  LUM_LOG(CORE, STATE, 4, "fresh");
  EXPECT_EQ(std::vector<std::string>{"core state      info    fresh"}, ReadLines(path_));
}

TEST_F(LoggerTest, LongFormatLineThroughFileAppender) {
  initializeFile("info", "long");
  int line = __LINE__ + 1;
  LUM_LOG(CORE, STATE, 2, "value %s=%d", "x", 5);
  time_t now = time(nullptr);
  std::vector<std::string> lines = ReadLines(path_);
  ASSERT_EQ(1u, lines.size());
  // "[LUM] " time[27] " " thread[8] " " classification[24] location[75] " " message
  const std::string& text = lines[0];
  ASSERT_GT(text.size(), 143u) << text;
  EXPECT_EQ("[LUM] ", text.substr(0, 6));
  struct tm stamp {};
  const char* rest = strptime(text.c_str() + 6, "%Y-%m-%dT%H:%M:%S", &stamp);
  ASSERT_EQ(text.c_str() + 25, rest) << text;
  EXPECT_EQ('.', text[25]);
  EXPECT_EQ(std::string::npos, text.substr(26, 6).find_first_not_of("0123456789"));
  EXPECT_EQ("Z ", text.substr(32, 2));
  EXPECT_LE(std::abs(static_cast<long>(timegm(&stamp) - now)), 5L);  // UTC, not local time
  EXPECT_EQ(ThreadUtil::GetThreadIdAsString() + " ", text.substr(34, 9));
  EXPECT_EQ("core state      error   ", text.substr(43, 24));
  std::string location = "Platform/LoggerTest:" + std::to_string(line) + "-{TestBody}";
  EXPECT_EQ(location + std::string(75 - location.size(), ' ') + " ", text.substr(67, 76));
  EXPECT_EQ("value x=5", text.substr(143));
}

TEST_F(LoggerTest, FunctionTraceLogsEnterAndReturnWhenFlowDebugIsOn) {
  LumJson::Value loggers(LumJson::arrayValue);
  LumJson::Value element = Element("file", path_, "medium", "core", "flow", "debug");
  element["filters"].append(Json(R"({"service":"core","category":"state","severity":"info"})"));
  loggers.append(element);
  logger().initialize(loggers);
  {
    LUM_TRACE(CORE);
    LUM_LOG(CORE, STATE, 4, "inside");
  }
  { FunctionTrace quiet("other", "Platform/Other", 7, DS); }
  std::vector<std::string> lines = ReadLines(path_);
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ("core flow       debug   TestBody()           Function Enter", lines[0].substr(13));
  EXPECT_EQ("core state      info    TestBody()           inside", lines[1].substr(13));
  EXPECT_EQ("core flow       debug   TestBody()           Function Return", lines[2].substr(13));
}

TEST_F(LoggerTest, ThreadUtilTracesUnderItsOwnName) {
  LumJson::Value loggers(LumJson::arrayValue);
  loggers.append(Element("file", path_, "long", "core", "flow", "debug"));
  logger().initialize(loggers);
  Thread never;
  ThreadUtil::Join(never);
  std::vector<std::string> lines = ReadLines(path_);
  ASSERT_EQ(2u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].find(" Platform/ThreadUtil:"));
  EXPECT_NE(std::string::npos, lines[0].find("-{Join}"));
  EXPECT_EQ("Function Enter", lines[0].substr(lines[0].size() - 14));
  EXPECT_EQ("Function Return", lines[1].substr(lines[1].size() - 15));
}

TEST_F(LoggerTest, TerminateStopsLoggingAndAllowsNewConfiguration) {
  size_t descriptorsBefore = LumLoggingTest::OpenDescriptorCount();
  initializeFile("trace");
  LUM_LOG(CORE, STATE, 4, "before");
  logger().terminate();
  EXPECT_EQ(descriptorsBefore, LumLoggingTest::OpenDescriptorCount());
  EXPECT_TRUE(Appender::GetAllAppenders().empty());
  EXPECT_FALSE(logger().test(CORE, STATE, 1));
  logger().log("Platform/LoggerTest", 1, "f", CORE, STATE, 1, "after");
  EXPECT_EQ(std::vector<std::string>{"core state      info    before"}, ReadLines(path_));
  logger().terminate();  // a second terminate is harmless

  initializeFile("info");
  EXPECT_TRUE(logger().test(CORE, STATE, 4));
}

TEST_F(LoggerTest, MessagesLongerThanFirstBufferAreWhole) {
  initializeFile("info");
  const size_t sizes[] = {2047, 2048, 2049, 5000, 200000};
  for (size_t size : sizes) {
    std::string message(size, 'm');
    message.back() = 'z';
    LUM_LOG(CORE, STATE, 4, "%s", message.c_str());
  }
  std::vector<std::string> lines = ReadLines(path_);
  ASSERT_EQ(5u, lines.size());
  for (size_t i = 0; i < 5; ++i) {
    std::string message(sizes[i], 'm');
    message.back() = 'z';
    EXPECT_EQ("core state      info    " + message, lines[i]) << sizes[i];
  }
}

TEST_F(LoggerTest, ConsoleAppenderWritesToStdout) {
  LumJson::Value loggers(LumJson::arrayValue);
  loggers.append(Element("console", "stdout", "short", "sv", "webservice", "warning"));
  logger().initialize(loggers);
  ::testing::internal::CaptureStdout();
  LUM_LOG(FilterProperties::SERVICE_SV, FilterProperties::CATEGORY_WEBSERVICE, 3, "to %s", "out");
  LUM_LOG(FilterProperties::SERVICE_SV, FilterProperties::CATEGORY_WEBSERVICE, 4, "filtered");
  EXPECT_EQ("sv   webservice warning to out\n", ::testing::internal::GetCapturedStdout());
}

TEST_F(LoggerTest, LinesFromManyThreadsNeverInterleave) {
  initializeFile("info");
  constexpr int kThreads = 6;
  constexpr int kLines = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      // Lines of several kilobytes, so that any interleaving would show.
      std::string body(1000 + 700 * t, static_cast<char>('a' + t));
      for (int i = 0; i < kLines; ++i) {
        LUM_LOG(CORE, STATE, 4, "%d %d %s", t, i, body.c_str());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::vector<std::string> lines = ReadLines(path_);
  ASSERT_EQ(static_cast<size_t>(kThreads * kLines), lines.size());
  std::vector<int> next(kThreads, 0);
  const std::string prefix = "core state      info    ";
  for (const std::string& line : lines) {
    ASSERT_EQ(prefix, line.substr(0, prefix.size())) << line.substr(0, 80);
    std::istringstream fields(line.substr(prefix.size()));
    int t = -1;
    int i = -1;
    std::string body;
    std::string extra;
    fields >> t >> i >> body >> extra;
    ASSERT_TRUE(t >= 0 && t < kThreads) << line.substr(0, 80);
    EXPECT_EQ(next[t]++, i);  // each thread's lines in order
    EXPECT_EQ(std::string(1000 + 700 * t, static_cast<char>('a' + t)), body);
    EXPECT_EQ("", extra);
  }
}

TEST_F(LoggerTest, TestStaysConsistentWhileAnotherThreadReconfigures) {
  std::atomic<bool> stop{false};
  std::atomic<long> passed{0};
  std::vector<std::thread> loggers;
  for (int t = 0; t < 3; ++t) {
    loggers.emplace_back([&] {
      while (!stop.load()) {
        // Debug is never enabled by any configuration used here.
        EXPECT_FALSE(logger().test(CORE, STATE, 5));
        if (logger().test(CORE, STATE, 4)) {
          passed.fetch_add(1);
          LUM_LOG(CORE, STATE, 4, "racing");
        }
      }
    });
  }
  for (int round = 0; round < 200; ++round) {
    initializeFile("info");
    logger().terminate();
  }
  initializeFile("info");
  EXPECT_TRUE(LumTest::WaitFor([&] { return passed.load() > 0; }));
  logger().terminate();
  stop.store(true);
  for (std::thread& thread : loggers) {
    thread.join();
  }
  EXPECT_FALSE(logger().test(CORE, STATE, 4));
  for (const std::string& line : ReadLines(path_)) {
    EXPECT_EQ("core state      info    racing", line);
  }
}

}  // namespace
}  // namespace Core
}  // namespace Lum
