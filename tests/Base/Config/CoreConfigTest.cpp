#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
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

// Every test leaves the process-wide logger and injector as it found them:
// unconfigured.
class CoreConfigTest : public ::testing::Test {
 protected:
  void TearDown() override {
    Logger::Instance().terminate();
    Injector::Instance().terminate();
  }

  // A "loggers" array with one short-format file appender passing core/state
  // lines up to `severity`.
  LumJson::Value fileLogger(const std::string& severity) const {
    LumJson::Value filter;
    filter["service"] = "core";
    filter["category"] = "state";
    filter["severity"] = severity;
    LumJson::Value logger;
    logger["type"] = "file";
    logger["argument"] = logFile();
    logger["format"] = "short";
    logger["filters"].append(filter);
    LumJson::Value loggers(LumJson::arrayValue);
    loggers.append(logger);
    return loggers;
  }

  std::string configText(const LumJson::Value& core) const {
    LumJson::Value root;
    root["core"] = core;
    return Lum::Core::JsonUtil::WriteCompact(root);
  }

  std::string logFile() const { return dir_.file("agent.log"); }

  // The message part of every logged line.
  std::vector<std::string> loggedMessages() const {
    std::vector<std::string> messages;
    const std::string content = LumTest::ReadFile(logFile());
    size_t start = 0;
    while (start < content.size()) {
      size_t end = content.find('\n', start);
      if (end == std::string::npos) {
        end = content.size();
      }
      // Short lines: service[4] category[10] severity[7], each followed by a space.
      const std::string line = content.substr(start, end - start);
      messages.push_back(line.size() > 24 ? line.substr(24) : std::string());
      start = end + 1;
    }
    return messages;
  }

  LumTest::TempDir dir_;
};

void ExpectDefaults(const CoreConfig& config) {
  EXPECT_FALSE(config.getSkipCurlGlobalInit());
  EXPECT_FALSE(config.getSkipSslCryptoInit());
  EXPECT_EQ("", config.getPersistentPath());
  EXPECT_EQ("", config.getTemporaryPath());
  EXPECT_FALSE(config.getEnableSwVersionSimulation());
  EXPECT_EQ("", config.getInitialSimulatedSwVersion());
}

TEST_F(CoreConfigTest, UnusableTextsKeepEveryDefault) {
  const char* texts[] = {
      "",
      "not json",
      "{\"core\": {\"skipCurlGlobalInit\": true}",        // unterminated
      "{\"core\": {\"skipCurlGlobalInit\": true}} tail",  // trailing garbage
      "{\"core\": {\"skipCurlGlobalInit\": true, \"skipCurlGlobalInit\": true}}",  // duplicate
      "{}",
      "[{\"core\": {\"skipCurlGlobalInit\": true}}]",
      "{\"core\": 5}",
      "{\"core\": [true]}",
      "{\"dataServices\": {\"skipCurlGlobalInit\": true}}",
  };
  for (const char* text : texts) {
    SCOPED_TRACE(text);
    ExpectDefaults(CoreConfig(text));
  }
  ExpectDefaults(CoreConfig(nullptr));
  // Nested beyond the reader's depth limit.
  ExpectDefaults(CoreConfig(("{\"core\":" + std::string(5000, '[')).c_str()));
}

TEST_F(CoreConfigTest, ReadsEveryKey) {
  LumTest::TempDir temporary;
  LumJson::Value core;
  core["skipCurlGlobalInit"] = true;
  core["skipSslCryptoInit"] = true;
  core["persistentPath"] = dir_.path() + "/";
  core["temporaryPath"] = temporary.path() + "/";
  core["enableSwVersionSimulation"] = true;
  core["initialSimulatedSwVersion"] = "T-1.2.3";

  CoreConfig config(configText(core).c_str());

  EXPECT_TRUE(config.getSkipCurlGlobalInit());
  EXPECT_TRUE(config.getSkipSslCryptoInit());
  EXPECT_EQ(dir_.path() + "/", config.getPersistentPath());
  EXPECT_EQ(temporary.path() + "/", config.getTemporaryPath());
  EXPECT_TRUE(config.getEnableSwVersionSimulation());
  EXPECT_EQ("T-1.2.3", config.getInitialSimulatedSwVersion());
}

TEST_F(CoreConfigTest, MistypedKeyKeepsItsDefaultAndOthersAreStillRead) {
  struct Case {
    const char* key;
    LumJson::Value value;
  };
  const Case cases[] = {
      {"skipCurlGlobalInit", "true"},
      {"skipCurlGlobalInit", 1},
      {"skipSslCryptoInit", LumJson::Value(LumJson::nullValue)},
      {"persistentPath", 5},
      {"persistentPath", LumJson::Value(LumJson::arrayValue)},
      {"temporaryPath", true},
      {"enableSwVersionSimulation", "yes"},
      {"initialSimulatedSwVersion", LumJson::Value(LumJson::objectValue)},
      {"initialSimulatedSwVersion", 7},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.key) + " = " + Lum::Core::JsonUtil::WriteCompact(c.value));
    LumJson::Value core;
    core[c.key] = c.value;
    // One good key beside the bad one, so the section is known to be read.
    const bool mistypedSkipSsl = std::string(c.key) == "skipSslCryptoInit";
    core[mistypedSkipSsl ? "skipCurlGlobalInit" : "skipSslCryptoInit"] = true;

    CoreConfig config(configText(core).c_str());

    EXPECT_EQ(!mistypedSkipSsl, config.getSkipSslCryptoInit());
    EXPECT_EQ(mistypedSkipSsl, config.getSkipCurlGlobalInit());
    EXPECT_EQ("", config.getPersistentPath());
    EXPECT_EQ("", config.getTemporaryPath());
    EXPECT_FALSE(config.getEnableSwVersionSimulation());
    EXPECT_EQ("", config.getInitialSimulatedSwVersion());
  }
}

TEST_F(CoreConfigTest, DirectoriesBecomeAbsoluteWithOneTrailingSlash) {
  char saved[4096];
  ASSERT_NE(nullptr, getcwd(saved, sizeof saved));
  ASSERT_EQ(0, chdir(dir_.path().c_str()));
  char resolved[4096];
  ASSERT_NE(nullptr, getcwd(resolved, sizeof resolved));
  const std::string cwd = resolved;

  struct Case {
    std::string given;
    std::string expected;
  };
  const Case cases[] = {
      {"data", cwd + "/data/"},
      {"data/", cwd + "/data/"},
      {"a/b", cwd + "/a/b/"},
      {"/opt/lum/", "/opt/lum/"},
      {"/opt/lum", "/opt/lum/"},
      {"/", "/"},
      {"", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.given);
    LumJson::Value core;
    core["persistentPath"] = c.given;
    core["temporaryPath"] = c.given;
    CoreConfig config(configText(core).c_str());
    EXPECT_EQ(c.expected, config.getPersistentPath());
    EXPECT_EQ(c.expected, config.getTemporaryPath());
  }
  ASSERT_EQ(0, chdir(saved));
}

TEST_F(CoreConfigTest, UnusableDirectoryIsLoggedAndKept) {
  LumTest::WriteFile(dir_.file("plain"), "not a directory");
  LumJson::Value core;
  core["loggers"] = fileLogger("error");
  core["persistentPath"] = dir_.path() + "/missing";
  core["temporaryPath"] = dir_.file("plain") + "/";

  CoreConfig config(configText(core).c_str());

  EXPECT_EQ(dir_.path() + "/missing/", config.getPersistentPath());
  EXPECT_EQ(dir_.file("plain") + "/", config.getTemporaryPath());
  const std::vector<std::string> expected = {
      "PERSISTENT DIRECTORY " + dir_.path() + "/missing IS NOT USABLE!",
      "TEMPORARY DIRECTORY " + dir_.file("plain") + "/ IS NOT USABLE!",
  };
  EXPECT_EQ(expected, loggedMessages());
}

TEST_F(CoreConfigTest, UsableDirectoriesLogNothing) {
  LumJson::Value core;
  core["loggers"] = fileLogger("error");
  core["persistentPath"] = dir_.path();
  core["temporaryPath"] = dir_.path() + "/";
  CoreConfig config(configText(core).c_str());
  EXPECT_TRUE(Logger::Instance().test(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_ERROR));
  EXPECT_EQ(std::vector<std::string>{}, loggedMessages());
}

TEST_F(CoreConfigTest, LoggersAreHandedToTheLoggerAndTheStateIsLogged) {
  LumJson::Value core;
  core["loggers"] = fileLogger("debug");
  core["skipSslCryptoInit"] = true;
  core["persistentPath"] = dir_.path();
  core["initialSimulatedSwVersion"] = "1.0";

  CoreConfig config(configText(core).c_str());
  config.logStateDebug();

  const std::vector<std::string> expected = {
      "config->skipCurlGlobalInit           : false",
      "config->skipSslCryptoInit            : true",
      "config->persistentPath               : " + dir_.path() + "/",
      "config->temporaryPath                : ",
      "config->enableSwVersionSimulation    : false",
      "config->initialSimulatedSwVersion    : 1.0",
  };
  EXPECT_EQ(expected, loggedMessages());
}

TEST_F(CoreConfigTest, LoggersThatAreNotAnArrayAreIgnored) {
  LumJson::Value core;
  core["loggers"] = fileLogger("debug")[0];  // the element itself, an object
  CoreConfig config(configText(core).c_str());
  config.logStateDebug();
  EXPECT_FALSE(Logger::Instance().test(FP::SERVICE_CORE, FP::CATEGORY_STATE, FP::SEVERITY_FATAL));
  EXPECT_EQ("", LumTest::ReadFile(logFile()));
}

TEST_F(CoreConfigTest, InjectorsAreHandedToTheInjectorOnlyAsAnArray) {
  LumJson::Value response;
  response["statusCode"] = 500;
  LumJson::Value entry;
  entry["suffix"] = "da/state";
  entry["responses"].append(response);

  LumJson::Value core;
  core["injectors"] = entry;  // an object: ignored
  CoreConfig ignored(configText(core).c_str());
  EXPECT_TRUE(Injector::Instance().entries().empty());

  core["injectors"] = LumJson::Value(LumJson::arrayValue);
  core["injectors"].append(entry);
  CoreConfig taken(configText(core).c_str());
  const std::vector<Injector::Entry> entries = Injector::Instance().entries();
  ASSERT_EQ(1u, entries.size());
  EXPECT_EQ("da/state", entries[0].suffix);
  ASSERT_EQ(1u, entries[0].responses.size());
  EXPECT_EQ(500u, entries[0].responses[0].statusCode);
}

}  // namespace
