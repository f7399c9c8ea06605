// The software update settings and the host's entry operations.
#include <gtest/gtest.h>
#include <lum.h>
#include <unistd.h>

#include <string>

#include "Base/SoftwareUpdateConfig.h"
#include "UpdateHarness.h"
#include "support/LogCapture.h"

namespace {

using Lum::Su::SoftwareUpdateConfig;
using LumTest::AgentHarness;
using LumTest::LogCapture;
using LumTest::TempDir;

// Runs with the working directory changed, and changes it back.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(const std::string& path) {
    char buffer[1024];
    previous_ = getcwd(buffer, sizeof buffer) != nullptr ? buffer : "/";
    EXPECT_EQ(chdir(path.c_str()), 0);
  }
  ~WorkingDirectory() { EXPECT_EQ(chdir(previous_.c_str()), 0); }

 private:
  std::string previous_;
};

TEST(SoftwareUpdateConfig, StagingLocationIsDefaultedAndMadeAbsolute) {
  TempDir dir;
  WorkingDirectory cwd(dir.path());
  const std::string unusable = "STAGING LOCATION DIRECTORY " + dir.path() + "/nodir IS NOT USABLE!";
  struct Case {
    const char* config;
    std::string location;
    unsigned maxBlock;
    bool unusableLogged;
  } cases[] = {
      {"{}", "/tmp/staging.raw", 0, false},
      {R"({"softwareUpdate": 7})", "/tmp/staging.raw", 0, false},
      {R"({"softwareUpdate": {"stagingLocation": "stage.raw", "maxBlockSizeBytes": 4096}})",
       dir.path() + "/stage.raw", 4096, false},
      {R"({"softwareUpdate": {"stagingLocation": "/no/such/dir/x.raw"}})", "/no/such/dir/x.raw", 0,
       false},
      {R"({"softwareUpdate": {"stagingLocation": "nodir/x.raw"}})", dir.path() + "/nodir/x.raw", 0,
       true},
      {R"({"softwareUpdate": {"stagingLocation": ""}})", dir.path(), 0, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.config);
    LogCapture log;
    SoftwareUpdateConfig config(c.config);
    EXPECT_EQ(config.getStagingLocation(), c.location);
    EXPECT_EQ(config.getMaxBlockSizeBytes(), c.maxBlock);
    EXPECT_EQ(log.logged(unusable), c.unusableLogged);
  }
}

TEST(SoftwareUpdateEntry, ArgumentsAreCheckedAndNothingIsPermittedBeforeAnOffer) {
  EXPECT_EQ(LumSetSoftwareUpdateSource(1, ""), LUM_RESULT_NOT_INITIALIZED);
  EXPECT_EQ(LumSetSoftwareUpdatePermission(1), LUM_RESULT_NOT_INITIALIZED);
  AgentHarness agent;
  agent.seedPersistedValues(LumTest::UpdateTunables());
  ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
  EXPECT_EQ(LumSetSoftwareUpdateSource(0, ""), LUM_RESULT_BAD_ARGUMENT);
  EXPECT_EQ(LumSetSoftwareUpdateSource(0, nullptr), LUM_RESULT_BAD_ARGUMENT);
  EXPECT_EQ(LumSetSoftwareUpdateSource(2, "x"), LUM_RESULT_BAD_ARGUMENT);
  EXPECT_EQ(LumSetSoftwareUpdatePermission(3), LUM_RESULT_BAD_ARGUMENT);
  EXPECT_TRUE(agent.logContains("LumSetSoftwareUpdateSource() called with bad location value"));
  EXPECT_TRUE(
      agent.logContains("LumSetSoftwareUpdatePermission() called with bad permission value"));

  // Nothing is published: the back end answers 204 and nothing is offered.
  EXPECT_EQ(LumSetSoftwareUpdateSource(1, ""), LUM_RESULT_SUCCESS);
  ASSERT_TRUE(LumTest::WaitFor([&] { return agent.backend().updates().metadataRequests() == 1; }));
  ASSERT_TRUE(agent.waitForLog("No software update available", std::chrono::seconds(10)));
  EXPECT_EQ(LumSetSoftwareUpdatePermission(1), LUM_RESULT_SUCCESS);
  EXPECT_TRUE(agent.logContains("LumSetSoftwareUpdateStaging() called"));
  const LumTest::UpdateStatus status = LumTest::ReadUpdateStatus();
  EXPECT_EQ(status.state, static_cast<unsigned>(LumSoftwareUpdateNotAvailable));
  EXPECT_EQ(status.permission, 0u);
  EXPECT_EQ(status.source, 1u);
  EXPECT_EQ(status.stagingFile, "/tmp/staging.raw");
  EXPECT_TRUE(status.version.empty());
}

}  // namespace
