#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Appender.h"
#include "Platform/JsonUtil.h"
#include "Platform/Logger.h"
#include "Platform/ThreadUtil.h"
#include "support/TestSupport.h"

LUM_SOURCE_FILE("Platform/LoggerTest");

namespace Lum {
namespace Core {
namespace {

constexpr int CORE = FilterProperties::SERVICE_CORE;
constexpr int DS = FilterProperties::SERVICE_DS;
constexpr int STATE = FilterProperties::CATEGORY_STATE;
constexpr int FLOW = FilterProperties::CATEGORY_FLOW;

// One element of the "loggers" array with a single filter entry.
std::string Element(const std::string& argument, const std::string& format,
                    const std::string& category, const std::string& severity,
                    const std::string& type = "file") {
  return R"({"type":")" + type + R"(","argument":")" + argument + R"(","format":")" + format +
         R"(","filters":[{"service":"core","category":")" + category + R"(","severity":")" +
         severity + R"("}]})";
}

std::vector<std::string> ReadLines(const std::string& path) {
  std::istringstream in(LumTest::ReadFile(path));
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

size_t OpenDescriptorCount() {
  auto entries = std::filesystem::directory_iterator("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override { logger().terminate(); }
  void TearDown() override { logger().terminate(); }
  static Logger& logger() { return Logger::Instance(); }

  void initialize(const std::string& loggers) {
    LumJson::Value value;
    ASSERT_TRUE(JsonUtil::ParseStrict(loggers, value)) << loggers;
    logger().initialize(value);
  }
  // One file appender for core/state.
  void initializeFile(const std::string& severity, const std::string& format = "short") {
    initialize("[" + Element(path_, format, "state", severity) + "]");
  }

  LumTest::TempDir dir_;
  std::string path_ = dir_.file("agent.log");
};

TEST_F(LoggerTest, FilterThresholdPassesUpToConfiguredSeverity) {
  initializeFile("info");
  for (int severity = 1; severity <= 6; ++severity) {
    EXPECT_EQ(severity <= 4, logger().test(CORE, STATE, severity)) << severity;
    LUM_LOG(CORE, STATE, severity, "line %d", severity);
  }
  EXPECT_FALSE(logger().test(CORE, FLOW, 1));
  std::vector<std::string> expected = {
      "core state      fatal   line 1", "core state      error   line 2",
      "core state      warning line 3", "core state      info    line 4"};
  EXPECT_EQ(expected, ReadLines(path_));
}

// "loggers" as an object (even one shaped like a valid element) disables all
// logging, as do elements that name no usable appender.
TEST_F(LoggerTest, ConfigurationsThatLogNothing) {
  const std::string configs[] = {
      Element(path_, "short", "state", "trace"),
      "[" + Element(path_, "short", "state", "trace", "pigeon") + "]",
      "[" + Element("", "short", "state", "trace") + "]",
      R"([{"type":"file","format":"short","filters":[]}, 7, "text", null])",
  };
  for (const std::string& config : configs) {
    SCOPED_TRACE(config);
    initialize(config);
    EXPECT_TRUE(Appender::GetAllAppenders().empty());
    for (int severity = -1; severity <= 7; ++severity) {
      ASSERT_FALSE(logger().test(CORE, STATE, severity));
    }
    logger().log("Platform/LoggerTest", 1, "f", CORE, STATE, 1, "never");
    EXPECT_FALSE(std::filesystem::exists(path_));
    logger().terminate();
  }
  // The object is no initialization: a proper configuration is taken after it.
  initialize(configs[0]);
  initializeFile("info");
  EXPECT_TRUE(logger().test(CORE, STATE, 4));
}

// The later of two appenders with one name replaces the earlier; a second
// initialization is ignored; terminate releases everything.
TEST_F(LoggerTest, FirstInitializeTruncatesAndStaysUntilTerminate) {
  const size_t descriptorsBefore = OpenDescriptorCount();
  LumTest::WriteFile(path_, "left over from the previous run\n");
  initialize("[" + Element(path_, "short", "state", "trace") + "," +
             Element(path_, "short", "state", "error") + "]");
  EXPECT_EQ("", LumTest::ReadFile(path_));
  EXPECT_EQ(1u, Appender::GetAllAppenders().size());
  EXPECT_TRUE(logger().test(CORE, STATE, 2));
  EXPECT_FALSE(logger().test(CORE, STATE, 3));
  initialize("[" + Element(dir_.file("other.log"), "short", "flow", "trace") + "]");
  EXPECT_FALSE(std::filesystem::exists(dir_.file("other.log")));
  EXPECT_FALSE(logger().test(CORE, FLOW, 1));
  LUM_LOG(CORE, STATE, 2, "once");
  logger().terminate();
  EXPECT_EQ(descriptorsBefore, OpenDescriptorCount());
  EXPECT_TRUE(Appender::GetAllAppenders().empty());
  EXPECT_FALSE(logger().test(CORE, STATE, 1));
  logger().log("Platform/LoggerTest", 1, "f", CORE, STATE, 1, "after terminate");
  EXPECT_EQ(std::vector<std::string>{"core state      error   once"}, ReadLines(path_));
}

// The fields a fixed event cannot show: the calling thread and the location
// filled in by the macro.
TEST_F(LoggerTest, LongFormatLineCarriesThreadAndLocation) {
  initializeFile("info", "long");
  int line = __LINE__ + 1;
  LUM_LOG(CORE, STATE, 2, "value %s=%d", "x", 5);
  std::vector<std::string> lines = ReadLines(path_);
  ASSERT_EQ(1u, lines.size());
  const std::string& text = lines[0];
  EXPECT_EQ(" " + ThreadUtil::GetThreadIdAsString() + " ", text.substr(33, 10));
  std::string location = "Platform/LoggerTest:" + std::to_string(line) + "-{TestBody}";
  EXPECT_EQ(location + std::string(76 - location.size(), ' ') + "value x=5", text.substr(67));
}

TEST_F(LoggerTest, FunctionTraceLogsEnterAndReturnWhenFlowDebugIsOn) {
  initialize("[" + Element(path_, "medium", "flow", "debug") + "]");
  {
    LUM_TRACE(CORE);
    LUM_LOG(CORE, FLOW, 5, "inside");
  }
  { FunctionTrace quiet("other", "Platform/Other", 7, DS); }
  std::vector<std::string> lines = ReadLines(path_);
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ("core flow       debug   TestBody()           Function Enter", lines[0].substr(13));
  EXPECT_EQ("core flow       debug   TestBody()           inside", lines[1].substr(13));
  EXPECT_EQ("core flow       debug   TestBody()           Function Return", lines[2].substr(13));
}

TEST_F(LoggerTest, MessagesLongerThanFirstBufferAreWhole) {
  initializeFile("info");
  const size_t sizes[] = {2047, 2048, 2049, 200000};
  for (size_t size : sizes) {
    LUM_LOG(CORE, STATE, 4, "%s|", std::string(size, 'm').c_str());
  }
  std::vector<std::string> lines = ReadLines(path_);
  ASSERT_EQ(4u, lines.size());
  for (size_t i = 0; i < 4; ++i) {
    EXPECT_EQ("core state      info    " + std::string(sizes[i], 'm') + "|", lines[i]) << sizes[i];
  }
}

TEST_F(LoggerTest, LinesFromManyThreadsNeverInterleave) {
  initializeFile("info");
  constexpr int kThreads = 4;
  constexpr int kLines = 200;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      // Lines of several kilobytes, so that any interleaving would show.
      std::string body(1000 + 1500 * t, static_cast<char>('a' + t));
      for (int i = 0; i < kLines; ++i) LUM_LOG(CORE, STATE, 4, "%d %d %s", t, i, body.c_str());
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::vector<std::string> lines = ReadLines(path_);
  ASSERT_EQ(static_cast<size_t>(kThreads * kLines), lines.size());
  std::vector<int> next(kThreads, 0);
  for (const std::string& line : lines) {
    int t = line[24] - '0';
    ASSERT_TRUE(t >= 0 && t < kThreads) << line.substr(0, 80);
    std::string expected = "core state      info    " + std::to_string(t) + " " +
                           std::to_string(next[t]++) + " " +
                           std::string(1000 + 1500 * t, static_cast<char>('a' + t));
    ASSERT_EQ(expected, line);  // whole, and each thread's lines in order
  }
}

TEST_F(LoggerTest, TestStaysConsistentWhileAnotherThreadReconfigures) {
  std::atomic<bool> stop{false};
  std::thread racer([&] {
    while (!stop.load()) {
      EXPECT_FALSE(logger().test(CORE, STATE, 5));  // debug is never enabled here
      LUM_LOG(CORE, STATE, 4, "racing");
    }
  });
  for (int round = 0; round < 200; ++round) {
    initializeFile("info");
    logger().terminate();
  }
  stop.store(true);
  racer.join();
  for (const std::string& line : ReadLines(path_)) {
    EXPECT_EQ("core state      info    racing", line);
  }
}

// The console appender writes each line to the stream it names, and only
// lines that pass its filter.
TEST_F(LoggerTest, ConsoleAppenderWritesToTheNamedStream) {
  for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
    const std::string captured = dir_.file("console" + std::to_string(fd));
    std::fflush(nullptr);
    const int saved = dup(fd);
    const int file = open(captured.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_TRUE(saved >= 0 && file >= 0 && dup2(file, fd) == fd);
    close(file);
    initialize(
        "[" +
        Element(fd == STDOUT_FILENO ? "stdout" : "stderr", "short", "state", "info", "console") +
        "]");
    LUM_LOG(CORE, STATE, 4, "to the console");
    LUM_LOG(CORE, STATE, 5, "filtered out");
    logger().terminate();
    std::fflush(nullptr);
    dup2(saved, fd);
    close(saved);
    EXPECT_EQ(std::vector<std::string>{"core state      info    to the console"},
              ReadLines(captured))
        << fd;
  }
}

// The syslog appender hands each line that passes its filter to syslog(3)
// under its ident, as LOG_USER; the priority table maps the agent's
// severities all to 0, so the severity shows in the text. Needs /dev/log
// free to stand in for the daemon.
TEST_F(LoggerTest, SyslogAppenderSendsLinesWithTheirPriority) {
  const char* const kLog = "/dev/log";
  if (access(kLog, F_OK) == 0) GTEST_SKIP() << "a syslog daemon owns " << kLog;
  const int daemon = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", kLog);
  ASSERT_EQ(0, bind(daemon, reinterpret_cast<sockaddr*>(&address), sizeof address));
  const timeval deadline{10, 0};
  setsockopt(daemon, SOL_SOCKET, SO_RCVTIMEO, &deadline, sizeof deadline);
  initialize("[" + Element("lumtest", "short", "state", "info", "syslog") + "]");
  LUM_LOG(CORE, STATE, 5, "filtered out");
  LUM_LOG(CORE, STATE, 2, "to syslog");
  logger().terminate();
  char message[512] = {};
  const ssize_t got = recv(daemon, message, sizeof message - 1, 0);
  close(daemon);
  unlink(kLog);
  ASSERT_GT(got, 0);
  const std::string text(message, static_cast<size_t>(got));
  EXPECT_EQ(0u, text.find("<8>")) << text;  // LOG_USER | 0
  EXPECT_NE(std::string::npos, text.find("lumtest: core state      error   to syslog")) << text;
}

}  // namespace
}  // namespace Core
}  // namespace Lum
