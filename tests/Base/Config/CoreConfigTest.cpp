#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <tuple>

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

// Every key is read; directories become absolute with one trailing slash.
TEST_F(CoreConfigTest, ReadsEveryKeyAndMakesDirectoriesAbsolute) {
  const std::string saved = std::filesystem::current_path();
  std::filesystem::current_path(dir_.path());
  const std::string cwd = std::filesystem::current_path();
  const std::pair<std::string, std::string> paths[] = {
      {"data", cwd + "/data/"}, {"data/", cwd + "/data/"}, {"/opt/lum", "/opt/lum/"}, {"/", "/"}};
  for (size_t i = 0; i < std::size(paths); ++i) {
    const auto& temporary = paths[(i + 1) % std::size(paths)];
    SCOPED_TRACE(paths[i].first + " " + temporary.first);
    LumJson::Value core;
    core["skipCurlGlobalInit"] = i % 2 == 0;  // alternating, so that a swap shows
    core["skipSslCryptoInit"] = i % 2 == 1;
    core["persistentPath"] = paths[i].first;
    core["temporaryPath"] = temporary.first;
    core["enableSwVersionSimulation"] = true;
    core["initialSimulatedSwVersion"] = "T-1.2.3";
    EXPECT_EQ(Values(i % 2 == 0, i % 2 == 1, paths[i].second, temporary.second, true, "T-1.2.3"),
              Read(CoreConfig(ConfigText(core).c_str())));
  }
  std::filesystem::current_path(saved);
}

// Both are handed over as arrays; anything else is ignored.
TEST_F(CoreConfigTest, LoggersAndInjectorsAreHandedOverOnlyAsArrays) {
  const std::string logger =
      R"({"type":"file","format":"short","argument":")" + dir_.file("agent.log") +
      R"(","filters":[{"service":"core","category":"state","severity":"debug"}]})";
  const std::string injector = R"({"suffix":"da/state","responses":[{"statusCode":500}]})";
  for (const bool arrays : {false, true}) {
    const std::string open = arrays ? "[" : "", close = arrays ? "]" : "";
    CoreConfig((R"({"core":{"loggers":)" + open + logger + close + R"(,"injectors":)" + open +
                injector + close + "}}")
                   .c_str());
    EXPECT_EQ(arrays,
              Logger::Instance().test(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG));
    EXPECT_EQ(arrays ? 1u : 0u, Injector::Instance().entries().size());
  }
}

}  // namespace
