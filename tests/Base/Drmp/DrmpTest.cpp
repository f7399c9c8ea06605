// DRMP end to end: the agent started through its C interface against the
// local back end (real TLS, real files, real threads) keeps the objects the
// back end lists, and nothing a bad answer names.
#include <dirent.h>
#include <gtest/gtest.h>
#include <lum.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "Platform/FileOperations.h"
#include "Platform/FileUtil.h"
#include "agent/AgentHarness.h"

namespace {

using Lum::Tools::DrmpListSigning;
using Lum::Tools::DrmpObject;
using Lum::Tools::Fault;
using LumTest::AgentHarness;
using LumTest::ReadFile;
using LumTest::WaitFor;
using LumTest::WriteFile;
using namespace std::chrono;

DrmpObject Object(const std::string& name, const std::string& version, const std::string& bytes,
                  DrmpObject::Fault fault = DrmpObject::Fault::None) {
  DrmpObject object;
  object.name = name;
  object.version = version;
  object.bytes = bytes;
  object.fault = fault;
  return object;
}

std::set<std::string> Names(const LumJson::Value& items) {
  std::set<std::string> names;
  for (const LumJson::Value& item : items) {
    names.insert(item.isString() ? item.asString() : item["name"].asString());
  }
  return names;
}

// A disk that takes no object: every rename into the object directory fails.
class NoObjectRenames : public Lum::Core::FileOperations {
 public:
  int rename(const char* from, const char* to) override {
    if (std::string(to).find("/drmp/") != std::string::npos) {
      errno = ENOSPC;
      return -1;
    }
    return FileOperations::rename(from, to);
  }
};

class Drmp : public ::testing::Test {
 protected:
  // By default no check of its own during a test: only the start and the
  // host's asks.
  void start(LumJson::Value section = LumJson::Value(LumJson::objectValue)) {
    if (!section.isMember("checkIntervalMs")) section["checkIntervalMs"] = 3600000;
    if (!section.isMember("retryDelayMs")) section["retryDelayMs"] = 3600000;
    agent_.setConfigSection("drmp", section);
    ASSERT_EQ(agent_.init(), LUM_RESULT_SUCCESS);
  }
  // The n-th report (1-based), once it has arrived.
  LumJson::Value report(size_t n) {
    EXPECT_TRUE(drmp().waitForReports(n, seconds(20)));
    const auto reports = drmp().reports();
    return reports.size() >= n ? reports[n - 1] : LumJson::Value();
  }
  LumJson::Value checkAndReport(size_t n) {
    EXPECT_EQ(LumCheckForDrmpUpdate(), LUM_RESULT_SUCCESS);
    return report(n);
  }
  Lum::Tools::DrmpService& drmp() { return agent_.backend().drmp(); }
  std::string dir() const { return agent_.persistentPath() + "/drmp"; }
  std::string object(const std::string& name) const { return ReadFile(dir() + "/" + name); }
  std::set<std::string> files() const {
    std::set<std::string> names;
    if (DIR* d = opendir(dir().c_str())) {
      while (const dirent* e = readdir(d)) {
        if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") {
          names.insert(e->d_name);
        }
      }
      closedir(d);
    }
    return names;
  }

  AgentHarness agent_;
};

TEST_F(Drmp, InstallsReplacesAndDeletesAsListed) {
  EXPECT_EQ(LumCheckForDrmpUpdate(), LUM_RESULT_NOT_INITIALIZED);
  drmp().setObjects({Object("channel-list", "1", "alpha"), Object("logo.png", "1", "beta")});
  start();
  LumJson::Value first = report(1);
  EXPECT_EQ(Names(first["installed"]), (std::set<std::string>{"channel-list", "logo.png"}));
  EXPECT_EQ(object("channel-list"), "alpha");
  EXPECT_EQ(object("logo.png"), "beta");

  drmp().setObjects({Object("channel-list", "2", "alpha two"), Object("logo.png", "1", "beta")});
  LumJson::Value second = checkAndReport(2);
  EXPECT_EQ(Names(second["installed"]), std::set<std::string>{"channel-list"});
  EXPECT_EQ(Names(second["kept"]), std::set<std::string>{"logo.png"});
  EXPECT_EQ(object("channel-list"), "alpha two");

  drmp().setObjects({Object("channel-list", "2", "alpha two")});
  LumJson::Value third = checkAndReport(3);
  EXPECT_EQ(Names(third["deleted"]), std::set<std::string>{"logo.png"});
  EXPECT_TRUE(third["failed"].empty());
  // Only the object itself is left: no scratch file of the replacement.
  EXPECT_EQ(files(), std::set<std::string>{"channel-list"});
  EXPECT_TRUE(agent_.logContains("LumCheckForDrmpUpdate() called"));
}

TEST_F(Drmp, BadObjectKeepsThePreviousVersionAndTheOthersInstall) {
  struct Case {
    DrmpObject::Fault fault;
    const char* reason;
  };
  const Case cases[] = {{DrmpObject::Fault::WrongBytes, "wrong sha256"},
                        {DrmpObject::Fault::WrongSize, "wrong size"},
                        {DrmpObject::Fault::Drop, "transfer failed"},
                        {DrmpObject::Fault::Unavailable, "status 503"}};
  drmp().setObjects({Object("a", "1", "a one"), Object("b", "1", "b one")});
  start();
  report(1);
  size_t n = 1;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    const std::string v = std::to_string(++n);
    drmp().setObjects({Object("a", v, "a bad " + v, c.fault), Object("b", v, "b " + v),
                       Object("c" + v, "1", "c")});
    LumJson::Value answer = checkAndReport(n);
    ASSERT_EQ(answer["failed"].size(), 1u);
    EXPECT_EQ(answer["failed"][0]["name"].asString(), "a");
    EXPECT_EQ(answer["failed"][0]["reason"].asString(), c.reason);
    EXPECT_EQ(Names(answer["installed"]), (std::set<std::string>{"b", "c" + v}));
    EXPECT_EQ(object("a"), "a one");
    EXPECT_EQ(object("b"), "b " + v);
  }
}

TEST_F(Drmp, UnsignedOrBadlySignedListChangesNothing) {
  drmp().setObjects({Object("a", "1", "a one")});
  start();
  report(1);
  drmp().setObjects({Object("a", "2", "a two"), Object("b", "1", "b one")});
  const size_t objectsAsked = agent_.backend().requestCount("/api/v1/drmp/objects");
  size_t refusals = 0;
  for (DrmpListSigning signing :
       {DrmpListSigning::Unsigned, DrmpListSigning::RogueSigned, DrmpListSigning::WrongSignature}) {
    drmp().setListSigning(signing);
    ASSERT_EQ(LumCheckForDrmpUpdate(), LUM_RESULT_SUCCESS);
    ++refusals;
    ASSERT_TRUE(WaitFor(
        [&] {
          const std::string log = agent_.log();
          size_t count = 0;
          for (size_t at = log.find("DRMP list refused"); at != std::string::npos;
               at = log.find("DRMP list refused", at + 1)) {
            ++count;
          }
          return count == refusals;
        },
        seconds(20)));
  }
  EXPECT_EQ(agent_.backend().requestCount("/api/v1/drmp/objects"), objectsAsked + refusals);
  EXPECT_EQ(agent_.backend().requestCount("/api/v1/drmp/object/a"), 1u);
  EXPECT_EQ(agent_.backend().requestCount("/api/v1/drmp/object/b"), 0u);
  EXPECT_EQ(drmp().reports().size(), 1u);
  EXPECT_EQ(object("a"), "a one");
  EXPECT_EQ(files(), std::set<std::string>{"a"});
}

TEST_F(Drmp, NamesThatWouldEscapeTheDirectoryAreRefused) {
  const std::vector<std::string> bad = {"../x", ".hidden", "a/b", std::string(65, 'n'), ""};
  std::vector<DrmpObject> objects = {Object("ok", "1", "fine")};
  for (const std::string& name : bad) {
    objects.push_back(Object(name, "1", "evil"));
  }
  drmp().setObjects(objects);
  start();
  LumJson::Value answer = report(1);
  EXPECT_EQ(Names(answer["installed"]), std::set<std::string>{"ok"});
  EXPECT_EQ(Names(answer["failed"]), std::set<std::string>(bad.begin(), bad.end()));
  EXPECT_EQ(files(), std::set<std::string>{"ok"});
  EXPECT_EQ(ReadFile(agent_.persistentPath() + "/x"), "");
  // Nothing was even fetched under a refused name.
  size_t fetches = 0;
  for (const auto& request : agent_.backend().requests()) {
    fetches += request.path.rfind("/api/v1/drmp/object/", 0) == 0 ? 1 : 0;
  }
  EXPECT_EQ(fetches, 1u);
}

TEST_F(Drmp, DamagedIndexAndStrayFilesAreRepairedAtTheNextStart) {
  drmp().setObjects({Object("a", "1", "a one"), Object("b", "1", "b one")});
  start();
  report(1);
  ASSERT_TRUE(agent_.stop());
  const std::string index = agent_.persistentPath() + "/drmpIndex";
  WriteFile(index, "{\"objects\": {\"a\": ");
  WriteFile(index + ".prev", "not an index");
  WriteFile(dir() + "/.a.tmp", "half an object");
  WriteFile(dir() + "/b", "b damaged");
  start();
  LumJson::Value answer = report(2);
  EXPECT_TRUE(agent_.logContains("is unusable"));
  EXPECT_TRUE(agent_.logContains("left by an install that did not finish"));
  EXPECT_EQ(Names(answer["installed"]), (std::set<std::string>{"a", "b"}));
  EXPECT_EQ(object("a"), "a one");
  EXPECT_EQ(object("b"), "b one");
  EXPECT_EQ(files(), (std::set<std::string>{"a", "b"}));
  // The repaired index vouches for both again: the next check keeps them.
  EXPECT_EQ(Names(checkAndReport(3)["kept"]), (std::set<std::string>{"a", "b"}));
}

TEST_F(Drmp, StopDoesNotWaitForATransfer) {
  drmp().setObjects({Object("slow", "1", "late")});
  Fault stall;
  stall.stallAfterHeaders = seconds(30);
  agent_.backend().injectFault("/api/v1/drmp/object/slow", stall);
  start();
  ASSERT_TRUE(agent_.backend().waitForRequests("/api/v1/drmp/object/slow", 1, seconds(20)));
  const auto before = steady_clock::now();
  ASSERT_TRUE(agent_.stop());
  // Well inside the 30 s the back end holds the body back.
  EXPECT_LT(steady_clock::now() - before, seconds(10));
  EXPECT_TRUE(drmp().reports().empty());
  EXPECT_TRUE(files().empty());
}

TEST_F(Drmp, ObjectsOverTheLimitsAreNotFetched) {
  LumJson::Value limits(LumJson::objectValue);
  limits["maxObjectBytes"] = 10;
  limits["maxTotalBytes"] = 15;
  drmp().setObjects({Object("held", "1", "12345678")});
  start(limits);
  report(1);
  drmp().setObjects({Object("held", "1", "12345678"), Object("huge", "1", "12345678901"),
                     Object("spill", "1", "12345678"), Object("fits", "1", "1234567")});
  LumJson::Value answer = checkAndReport(2);
  EXPECT_EQ(Names(answer["kept"]), std::set<std::string>{"held"});
  EXPECT_EQ(Names(answer["installed"]), std::set<std::string>{"fits"});
  EXPECT_EQ(Names(answer["failed"]), (std::set<std::string>{"huge", "spill"}));
  EXPECT_EQ(agent_.backend().requestCount("/api/v1/drmp/object/huge"), 0u);
  EXPECT_EQ(agent_.backend().requestCount("/api/v1/drmp/object/spill"), 0u);
}

TEST_F(Drmp, AFailedWriteKeepsThePreviousVersion) {
  drmp().setObjects({Object("a", "1", "a one")});
  start();
  report(1);
  drmp().setObjects({Object("a", "2", "a two")});
  NoObjectRenames full;
  Lum::Core::FileUtil::SetOperations(&full);
  LumJson::Value answer = checkAndReport(2);
  Lum::Core::FileUtil::SetOperations(nullptr);
  ASSERT_EQ(answer["failed"].size(), 1u);
  EXPECT_EQ(answer["failed"][0]["reason"].asString(), "cannot write");
  EXPECT_EQ(object("a"), "a one");
  EXPECT_EQ(files(), std::set<std::string>{"a"});
  EXPECT_EQ(Names(checkAndReport(3)["installed"]), std::set<std::string>{"a"});
  EXPECT_EQ(object("a"), "a two");
}

TEST_F(Drmp, ChecksFollowTheScheduleAndRetryAfterAFailure) {
  struct Case {
    const char* name;
    unsigned intervalMs;
    unsigned retryMs;
    DrmpObject::Fault fault;
  };
  for (const Case& c : {Case{"interval", 1000, 3600000, DrmpObject::Fault::WrongBytes},
                        Case{"retry", 3600000, 1000, DrmpObject::Fault::Unavailable}}) {
    SCOPED_TRACE(c.name);
    AgentHarness agent;
    agent.backend().drmp().setObjects({Object("a", "1", "a one", c.fault)});
    LumJson::Value section(LumJson::objectValue);
    section["checkIntervalMs"] = c.intervalMs;
    section["retryDelayMs"] = c.retryMs;
    agent.setConfigSection("drmp", section);
    ASSERT_EQ(agent.init(), LUM_RESULT_SUCCESS);
    ASSERT_TRUE(agent.backend().drmp().waitForReports(1, seconds(20)));
    agent.backend().drmp().setObjects({Object("a", "1", "a one")});
    // No ask of the host's: a later check comes by itself and installs it.
    EXPECT_TRUE(WaitFor(
        [&] {
          for (const LumJson::Value& report : agent.backend().drmp().reports()) {
            if (Names(report["installed"]) == std::set<std::string>{"a"}) return true;
          }
          return false;
        },
        seconds(20)));
    EXPECT_TRUE(agent.log().find("LumCheckForDrmpUpdate") == std::string::npos);
    ASSERT_TRUE(agent.stop());
  }
}

TEST_F(Drmp, FactoryResetRemovesEveryObject) {
  drmp().setObjects({Object("a", "1", "a one")});
  start();
  report(1);
  ASSERT_TRUE(agent_.stop(true));
  EXPECT_TRUE(files().empty());
  EXPECT_EQ(ReadFile(agent_.persistentPath() + "/drmpIndex"), "");
}

}  // namespace
