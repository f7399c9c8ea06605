// The shell runner and the ping built on it, with a fixture ping program
// that records its arguments: no network and no /bin/ping needed.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "Platform/System.h"
#include "support/TestSupport.h"

namespace {

using Lum::Sv::System;
using LumTest::ReadFile;
using LumTest::TempDir;
using LumTest::WriteFile;

class SystemPing : public ::testing::Test {
 protected:
  void SetUp() override {
    // Answers only for 127.0.0.1, as a network with just loopback would.
    WriteFile(script(),
              "#!/bin/sh\necho \"$*\" >> " + dir_.file("args") + "\n[ \"$5\" = \"127.0.0.1\" ]\n");
    ASSERT_EQ(chmod(script().c_str(), 0700), 0);
    ASSERT_TRUE(System::SetPingProgram(script()));
  }
  void TearDown() override { System::SetPingProgram(""); }
  std::string script() const { return dir_.file("ping"); }
  bool exists(const std::string& name) const { return access(dir_.file(name).c_str(), F_OK) == 0; }
  TempDir dir_;
};

TEST(SystemCall, ReportsTheExitCodeThroughTheOutArgument) {
  for (int code : {0, 2, 255}) {
    int exitCode = -1;
    EXPECT_EQ(System::SystemCall("exit " + std::to_string(code), exitCode), 0);
    EXPECT_EQ(exitCode, code);
  }
}

TEST_F(SystemPing, RunsThePingProgramWithTheAddress) {
  struct Case {
    const char* address;
    int exitCode;
  } cases[] = {{"127.0.0.1", 0}, {"127.0.0.2", 1}};
  for (const Case& c : cases) {
    int exitCode = -1;
    EXPECT_EQ(System::Ping(c.address, exitCode), 0);
    EXPECT_EQ(exitCode, c.exitCode) << c.address;
  }
  EXPECT_EQ(ReadFile(dir_.file("args")), "-c 2 -W 1 127.0.0.1\n-c 2 -W 1 127.0.0.2\n");
}

// Anything but a plain dotted IPv4 address is refused before a shell sees
// it: the marker the injected commands would create never appears.
TEST_F(SystemPing, RefusesAnythingButANumericAddress) {
  const std::string marker = dir_.file("marker");
  const std::string refused[] = {"127.0.0.1; touch " + marker,
                                 "$(touch " + marker + ")",
                                 "`touch " + marker + "`",
                                 "127.0.0.1 && touch " + marker,
                                 "localhost",
                                 "1.2.3",
                                 "127.0.0.01",
                                 " 127.0.0.1",
                                 "::1",
                                 ""};
  const uint64_t runs = System::ShellRuns();
  for (const std::string& text : refused) {
    int exitCode = -1;
    EXPECT_EQ(System::Ping(text, exitCode), 1) << text;
  }
  EXPECT_EQ(System::ShellRuns(), runs);
  EXPECT_FALSE(exists("marker"));
  EXPECT_FALSE(exists("args"));
  EXPECT_FALSE(System::SetPingProgram("/bin/true; touch " + marker));
}

}  // namespace
