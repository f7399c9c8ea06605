#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "Base/CoreConfig.h"
#include "Base/DeviceValues.h"
#include "Base/PersistentValues.h"
#include "Base/ProductIdentity.h"
#include "Platform/FileOperations.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "Platform/Logger.h"
#include "support/TestSupport.h"
#include "tools/pki/TestPki.h"

namespace Lum {
namespace Ds {
class CollectDeviceInfo;
}  // namespace Ds
}  // namespace Lum

namespace {

using Lum::Core::CoreConfig;
using Lum::Core::DeviceValues;
using Lum::Core::FileUtil;
using Lum::Core::JsonUtil;
using Lum::Core::Logger;
using Lum::Core::PersistentValues;
using Lum::Core::ProductIdentity;

struct Device {
  std::string id = "SN1", model = "M1", subModel = "S1", brand = "B1", esn = "E1", mac = "MAC1",
              swVersion = "1.0";
  std::string text() const {
    LumJson::Value root;
    root["id"] = id;
    root["model"] = model;
    root["subModel"] = subModel;
    root["brand"] = brand;
    root["esn"] = esn;
    root["mac"] = mac;
    root["swVersion"] = swVersion;
    return JsonUtil::WriteCompact(root);
  }
};

std::string IdentityText(const std::string& certPem) {
  LumJson::Value root(LumJson::objectValue);
  if (!certPem.empty()) {
    root["cert"] = certPem;
  }
  return JsonUtil::WriteCompact(root);
}

// The start-up objects, built from texts in the order the core manager uses.
struct Start {
  Start(const std::string& dir, const std::string& certPem, const Device& d = Device())
      : config(("{\"core\":{\"persistentPath\":\"" + dir + "\"}}").c_str()),
        identity(IdentityText(certPem).c_str()),
        device(d.text().c_str(), false, "", config.getPersistentPath()),
        values(identity, config, device) {}
  bool store() { return values.store(config.getPersistentPath()); }

  CoreConfig config;
  ProductIdentity identity;
  DeviceValues device;
  PersistentValues values;
};

// Logs core lines of one category up to one severity into a file, short format.
class LogCapture {
 public:
  LogCapture(const std::string& path, const char* category, const char* severity) : path_(path) {
    LumJson::Value filter;
    filter["service"] = "core";
    filter["category"] = category;
    filter["severity"] = severity;
    LumJson::Value logger;
    logger["type"] = "file";
    logger["argument"] = path;
    logger["format"] = "short";
    logger["filters"].append(filter);
    LumJson::Value loggers(LumJson::arrayValue);
    loggers.append(logger);
    Logger::Instance().initialize(loggers);
  }
  ~LogCapture() { Logger::Instance().terminate(); }

  std::vector<std::string> messages() const {
    std::vector<std::string> messages;
    const std::string content = LumTest::ReadFile(path_);
    size_t start = 0;
    for (size_t end; (end = content.find('\n', start)) != std::string::npos; start = end + 1) {
      // Short lines: service[4] category[10] severity[7], each followed by a space.
      messages.push_back(content.substr(start + 24, end - start - 24));
    }
    return messages;
  }

 private:
  std::string path_;
};

// Counts the files FileUtil puts in place, and can fail writes.
class CountingOperations : public Lum::Core::FileOperations {
 public:
  int rename(const char* from, const char* to) override {
    ++renames;
    return FileOperations::rename(from, to);
  }
  ssize_t write(int fd, const void* buffer, size_t size) override {
    if (failWrites) {
      errno = ENOSPC;
      return -1;
    }
    return FileOperations::write(fd, buffer, size);
  }
  int renames = 0;
  bool failWrites = false;
};

class PersistentStartTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_TRUE(pki_.generate());
    ASSERT_TRUE(pki_.issueLeaf("myopid.lum.localhost:4443", Lum::Tools::KeyType::EcP256, true,
                               &cert_, &key_));
  }
  void TearDown() override { FileUtil::SetOperations(nullptr); }

  LumJson::Value storedDocument() const {
    LumJson::Value root;
    EXPECT_TRUE(JsonUtil::ParseStrict(FileUtil::Load(dir_.path(), "core"), root));
    return root;
  }

  static Lum::Tools::TestPki pki_;
  static std::string cert_;
  static std::string key_;
  LumTest::TempDir dir_;
};

Lum::Tools::TestPki PersistentStartTest::pki_;
std::string PersistentStartTest::cert_;
std::string PersistentStartTest::key_;

TEST_F(PersistentStartTest, FirstStartWritesDefaultsWithTheStartValues) {
  Start start(dir_.path(), cert_);
  EXPECT_FALSE(start.values.isPersisted());
  EXPECT_TRUE(start.values.hasDeviceInfoChanged());
  ASSERT_TRUE(start.store());
  EXPECT_TRUE(start.values.isPersisted());

  const LumJson::Value stored = storedDocument();
  EXPECT_EQ(69u, stored.size());
  EXPECT_EQ(PersistentValues::BuiltInSdkVersion(), stored["sdkVersion"].asString());
  EXPECT_TRUE(stored["daSupportViewEnabled"].asBool());
  EXPECT_EQ(30001u, stored["daConnectTimeoutMs"].asUInt());
  EXPECT_EQ("", stored["gidToken"].asString());
  EXPECT_EQ("myopid", stored["certOpid"].asString());
  EXPECT_EQ("lum.localhost:4443", stored["certInstance"].asString());
  const Device d;
  const std::pair<const char*, std::string> fields[] = {{"deviceId", d.id},
                                                        {"deviceModel", d.model},
                                                        {"deviceSubModel", d.subModel},
                                                        {"deviceBrand", d.brand},
                                                        {"deviceEsn", d.esn},
                                                        {"deviceMac", d.mac},
                                                        {"deviceSwVersion", d.swVersion}};
  for (const auto& field : fields) {
    EXPECT_EQ(field.second, stored[field.first].asString()) << field.first;
  }
}

TEST_F(PersistentStartTest, RestartKeepsTokenAndSequenceNumbers) {
  {
    Start first(dir_.path(), cert_);
    first.values.setGidToken("gid-token");
    first.values.setOpidSeqNum(11);
    first.values.setGidSeqNum(4294967295u);
    first.values.setSynchronized(true);
    ASSERT_TRUE(first.store());
  }
  LogCapture log(dir_.file("agent.log"), "test", "debug");
  Start second(dir_.path(), cert_);
  EXPECT_EQ("gid-token", second.values.getGidToken());
  EXPECT_EQ(11u, second.values.getOpidSeqNum());
  EXPECT_EQ(4294967295u, second.values.getGidSeqNum());
  EXPECT_TRUE(second.values.getSynchronized());
  EXPECT_TRUE(second.values.isPersisted());
  EXPECT_FALSE(second.values.hasDeviceInfoChanged());

  // The document read is logged as one JSON line for test harnesses.
  const std::vector<std::string> messages = log.messages();
  ASSERT_EQ(1u, messages.size());
  LumJson::Value logged;
  ASSERT_TRUE(JsonUtil::ParseStrict(messages[0], logged)) << messages[0];
  EXPECT_EQ("gid-token", logged["coreValuesLoad"]["gidToken"].asString());
}

// The back end learns of a changed description through a synchronisation,
// which only the fields it is told about trigger.
TEST_F(PersistentStartTest, ChangedDeviceAtRestartIsMarked) {
  struct Case {
    const char* name;
    std::string Device::*field;
    bool clearsSynchronized;
  };
  const Case cases[] = {
      {"id", &Device::id, true},
      {"model", &Device::model, true},
      {"subModel", &Device::subModel, true},
      {"brand", &Device::brand, true},
      {"swVersion", &Device::swVersion, true},
      {"esn", &Device::esn, false},
      {"mac", &Device::mac, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LumTest::TempDir dir;
    {
      Start first(dir.path(), cert_);
      first.values.setSynchronized(true);
      ASSERT_TRUE(first.store());
    }
    Device changed;
    changed.*c.field += "-new";
    Start second(dir.path(), cert_, changed);
    EXPECT_EQ(!c.clearsSynchronized, second.values.getSynchronized());
    EXPECT_FALSE(second.values.isPersisted());
    EXPECT_TRUE(second.values.hasDeviceInfoChanged());
  }
}

TEST_F(PersistentStartTest, CertificateCommonNameSplitsAtTheFirstDot) {
  struct Case {
    const char* commonName;  // null: no certificate at all
    const char* opid;
    const char* instance;
  };
  const Case cases[] = {
      {"a.b.c:1", "a", "b.c:1"},
      {"nodot", "", ""},
      {".leading", "", "leading"},
      {nullptr, "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.commonName != nullptr ? c.commonName : "(none)");
    std::string cert;
    std::string key;
    if (c.commonName != nullptr) {
      ASSERT_TRUE(pki_.issueLeaf(c.commonName, Lum::Tools::KeyType::EcP256, true, &cert, &key));
    }
    Start start(dir_.path(), cert);
    EXPECT_EQ(c.opid, start.values.getCertOpid());
    EXPECT_EQ(c.instance, start.values.getCertInstance());
  }
}

TEST_F(PersistentStartTest, StoreWritesOnlyWhenSomethingChanged) {
  CountingOperations operations;
  FileUtil::SetOperations(&operations);
  Start start(dir_.path(), cert_);
  ASSERT_TRUE(start.store());
  const int afterFirst = operations.renames;
  EXPECT_GT(afterFirst, 0);

  EXPECT_TRUE(start.store());
  EXPECT_FALSE(start.values.setDaPollDelayFixedMs(3150000));
  EXPECT_TRUE(start.values.isPersisted());
  EXPECT_TRUE(start.store());
  EXPECT_EQ(afterFirst, operations.renames);

  EXPECT_TRUE(start.values.setDaPollDelayFixedMs(60000));
  EXPECT_TRUE(start.store());
  EXPECT_GT(operations.renames, afterFirst);
  EXPECT_EQ(60000u, storedDocument()["daPollDelayFixedMs"].asUInt());
}

TEST_F(PersistentStartTest, FailedStoreIsRetriedByTheNextStore) {
  CountingOperations operations;
  operations.failWrites = true;
  FileUtil::SetOperations(&operations);
  Start start(dir_.path(), cert_);
  start.values.setGidToken("kept");
  EXPECT_FALSE(start.store());
  EXPECT_FALSE(start.values.isPersisted());

  operations.failWrites = false;
  EXPECT_TRUE(start.store());
  EXPECT_TRUE(start.values.isPersisted());
  EXPECT_EQ("kept", storedDocument()["gidToken"].asString());
}

TEST_F(PersistentStartTest, DropRemovesTheFileSoTheNextStartHasDefaults) {
  {
    Start first(dir_.path(), cert_);
    first.values.setGidToken("gid-token");
    ASSERT_TRUE(first.store());
    EXPECT_TRUE(first.values.drop(first.config.getPersistentPath()));
  }
  EXPECT_EQ("", FileUtil::Load(dir_.path(), "core"));
  Start second(dir_.path(), cert_);
  EXPECT_EQ("", second.values.getGidToken());
  EXPECT_FALSE(second.values.isPersisted());
}

TEST_F(PersistentStartTest, UnreadableFileKeepsDefaultsAndIsRewritten) {
  const char* contents[] = {"{\"gidToken\":\"t\"", "[{\"gidToken\":\"t\"}]", "\x01\x02"};
  for (const char* content : contents) {
    SCOPED_TRACE(content);
    LumTest::TempDir dir;
    // Written by hand, as an older agent or a person would: no checksum.
    LumTest::WriteFile(dir.file("core"), content);
    Start start(dir.path(), cert_);
    EXPECT_EQ("", start.values.getGidToken());
    EXPECT_FALSE(start.values.isPersisted());
    ASSERT_TRUE(start.store());
    LumJson::Value root;
    EXPECT_TRUE(JsonUtil::ParseStrict(FileUtil::Load(dir.path(), "core"), root));
  }
}

TEST_F(PersistentStartTest, DeviceInfoCollectorIsWokenOncePerChange) {
  LogCapture log(dir_.file("agent.log"), "state", "info");
  const std::string woken = "Device information changed, waking the device information collector";
  PersistentValues values;
  // The store only keeps the collector's address and hands the wake-up to it.
  int collectorStandIn = 0;
  auto* collector = reinterpret_cast<Lum::Ds::CollectDeviceInfo*>(&collectorStandIn);

  values.setDeviceMac("m1");
  values.checkDeviceInfoCollector();  // nobody to wake; the change is consumed
  values.registerDeviceInfoCollector(collector);
  values.checkDeviceInfoCollector();
  EXPECT_EQ(std::vector<std::string>{}, log.messages());

  values.setDeviceSwVersion("2.0");
  values.setDeviceEsn("e2");
  values.checkDeviceInfoCollector();
  values.checkDeviceInfoCollector();
  EXPECT_EQ(std::vector<std::string>{woken}, log.messages());
  EXPECT_TRUE(values.hasDeviceInfoChanged());

  values.setGidToken("not device information");
  values.checkDeviceInfoCollector();
  values.unregisterDeviceInfoCollector();
  values.setDeviceMac("m2");
  values.checkDeviceInfoCollector();
  EXPECT_EQ(std::vector<std::string>{woken}, log.messages());
}

TEST_F(PersistentStartTest, StateDebugDumpsEveryValueInOneColumn) {
  LogCapture log(dir_.file("agent.log"), "state", "debug");
  PersistentValues values;
  values.setGidToken("tok");
  values.setDsAllowedDataItemIds({"b", "a"});
  values.logStateDebug();

  const std::vector<std::string> messages = log.messages();
  ASSERT_EQ(69u, messages.size());
  EXPECT_EQ("persist->gidToken                    : tok", messages[0]);
  EXPECT_EQ("persist->synchronized                : false", messages[1]);
  EXPECT_EQ("persist->daConnectTimeoutMs          : 30001", messages[21]);
  EXPECT_EQ("persist->suStagingRetryDelayVariedMs : 5000", messages[61]);
  EXPECT_EQ("persist->dsAllowedDataItemIds        : a,b", messages[68]);
}

}  // namespace
