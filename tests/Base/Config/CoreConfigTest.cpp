#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "Base/CoreConfig.h"
#include "Base/Injector.h"
#include "Platform/JsonUtil.h"
#include "Platform/Logger.h"
#include "support/TestSupport.h"

namespace {

using Lum::Core::CoreConfig;
using Lum::Core::Injector;
using Lum::Core::Logger;
using FP = Lum::Core::FilterProperties;

std::string ConfigText(const LumJson::Value& core) {
  LumJson::Value root;
  root["core"] = core;
  return Lum::Core::JsonUtil::WriteCompact(root);
}

using Values = std::tuple<bool, bool, std::string, std::string, bool, std::string>;
Values Read(const CoreConfig& c) {
  return {c.getSkipCurlGlobalInit(),
          c.getSkipSslCryptoInit(),
          c.getPersistentPath(),
          c.getTemporaryPath(),
          c.getEnableSwVersionSimulation(),
          c.getInitialSimulatedSwVersion()};
}
const Values kDefaults{false, false, "", "", false, ""};

// Every test leaves the process-wide logger and injector unconfigured.
class CoreConfigTest : public ::testing::Test {
 protected:
  void TearDown() override {
    Logger::Instance().terminate();
    Injector::Instance().terminate();
  }
  LumTest::TempDir dir_;
};

// Texts without a usable "core" object, and keys of the wrong type.
TEST_F(CoreConfigTest, UnusableTextsAndMistypedKeysKeepTheDefaults) {
  const char* const texts[] = {
      "",
      "not json",
      R"({"core": {"skipCurlGlobalInit": true}} tail)",
      "{}",
      R"({"core": 5})",
      R"({"dataServices": {"skipCurlGlobalInit": true}})",
      R"({"core": {"skipCurlGlobalInit": "true", "skipSslCryptoInit": 1, "persistentPath": 5,)"
      R"( "temporaryPath": true, "enableSwVersionSimulation": "yes",)"
      R"( "initialSimulatedSwVersion": {}}})",
  };
  for (const char* text : texts) {
    SCOPED_TRACE(text);
    EXPECT_EQ(kDefaults, Read(CoreConfig(text)));
  }
  EXPECT_EQ(kDefaults, Read(CoreConfig(nullptr)));
}

TEST_F(CoreConfigTest, ReadsEveryKey) {
  LumJson::Value core;
  core["skipCurlGlobalInit"] = true;
  core["skipSslCryptoInit"] = true;
  core["persistentPath"] = dir_.path() + "/";
  core["temporaryPath"] = dir_.path();
  core["enableSwVersionSimulation"] = true;
  core["initialSimulatedSwVersion"] = "T-1.2.3";
  EXPECT_EQ(Values(true, true, dir_.path() + "/", dir_.path() + "/", true, "T-1.2.3"),
            Read(CoreConfig(ConfigText(core).c_str())));
}

TEST_F(CoreConfigTest, DirectoriesBecomeAbsoluteWithOneTrailingSlash) {
  const std::string saved = std::filesystem::current_path();
  std::filesystem::current_path(dir_.path());
  const std::string cwd = std::filesystem::current_path();
  const std::pair<std::string, std::string> cases[] = {
      {"data", cwd + "/data/"}, {"data/", cwd + "/data/"}, {"/opt/lum", "/opt/lum/"}, {"/", "/"}};
  for (const auto& [given, expected] : cases) {
    SCOPED_TRACE(given);
    LumJson::Value core;
    core["persistentPath"] = given;
    core["temporaryPath"] = given;
    const CoreConfig config(ConfigText(core).c_str());
    EXPECT_EQ(expected, config.getPersistentPath());
    EXPECT_EQ(expected, config.getTemporaryPath());
  }
  std::filesystem::current_path(saved);
}

// Both are handed over as arrays; anything else is ignored.
TEST_F(CoreConfigTest, LoggersAndInjectorsAreHandedOver) {
  const std::string logger =
      R"({"type":"file","format":"short","argument":")" + dir_.file("agent.log") +
      R"(","filters":[{"service":"core","category":"state","severity":"debug"}]})";
  const std::string injector = R"({"suffix":"da/state","responses":[{"statusCode":500}]})";
  CoreConfig((R"({"core":{"loggers":)" + logger + R"(,"injectors":)" + injector + "}}").c_str());
  EXPECT_FALSE(Logger::Instance().test(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_FATAL));
  EXPECT_TRUE(Injector::Instance().entries().empty());

  CoreConfig((R"({"core":{"skipSslCryptoInit":true,"loggers":[)" + logger + R"(],"injectors":[)" +
              injector + "]}}")
                 .c_str())
      .logStateDebug();
  EXPECT_NE(std::string::npos, LumTest::ReadFile(dir_.file("agent.log"))
                                   .find("config->skipSslCryptoInit            : true"));
  const std::vector<Injector::Entry> entries = Injector::Instance().entries();
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ("da/state", entries[0].suffix);
  ASSERT_EQ(1u, entries[0].responses.size());
  EXPECT_EQ(500u, entries[0].responses[0].statusCode);
}

}  // namespace
