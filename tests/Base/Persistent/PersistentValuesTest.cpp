#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <string>

#include "Base/CoreConfig.h"
#include "Base/DeviceValues.h"
#include "Base/PersistentValues.h"
#include "Base/ProductIdentity.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"
#include "support/LogCapture.h"
#include "support/TestSupport.h"
#include "tools/pki/TestPki.h"

namespace {

using Lum::Core::FileUtil;
using Lum::Core::JsonUtil;
using PV = Lum::Core::PersistentValues;

LumJson::Value Document(const PV& values) {
  std::string text;
  values.marshal(text);
  LumJson::Value root;
  EXPECT_TRUE(JsonUtil::ParseStrict(text, root)) << text;
  return root;
}

enum Mark { kNone, kDevice, kConsent, kGracenote };

// Representatives of every kind of setter: plain, reported to the back end
// (clears "synchronized"), and each change mark. `set` stores `value`.
const struct Setter {
  const char* key;
  std::function<bool(PV&)> set;
  LumJson::Value value;
  bool reported;
  Mark mark;
} kSetters[] = {
    {"gidToken", [](PV& v) { return v.setGidToken("t\"\u00e9"); }, "t\"\u00e9", false, kNone},
    {"testMode", [](PV& v) { return v.setTestMode(true); }, true, true, kNone},
    {"deviceSwVersion", [](PV& v) { return v.setDeviceSwVersion("2"); }, "2", true, kDevice},
    {"deviceMac", [](PV& v) { return v.setDeviceMac("m"); }, "m", false, kDevice},
    {"gidSeqNum", [](PV& v) { return v.setGidSeqNum(4294967295u); }, LumJson::Int64{4294967295},
     false, kNone},
    {"daConsentUrl", [](PV& v) { return v.setDaConsentUrl("u"); }, "u", false, kConsent},
    {"dsGracenoteTag", [](PV& v) { return v.setDsGracenoteTag("g"); }, "g", false, kGracenote},
};

// Each setter changes exactly its own key, with the side effects of its kind;
// its current value again is no change.
TEST(PersistentValuesTest, SetterChangesOnlyItsKey) {
  const LumJson::Value defaults = Document(PV());
  for (const Setter& setter : kSetters) {
    SCOPED_TRACE(setter.key);
    PV values;
    values.setSynchronized(true);
    EXPECT_TRUE(setter.set(values));
    EXPECT_FALSE(values.isPersisted());
    LumJson::Value expected = defaults;
    expected[setter.key] = setter.value;
    expected["synchronized"] = !setter.reported;
    EXPECT_EQ(expected, Document(values));
    EXPECT_EQ(setter.mark == kDevice, values.hasDeviceInfoChanged());
    EXPECT_EQ(setter.mark == kConsent, values.testDaConsentUrl());
    EXPECT_EQ(setter.mark == kGracenote, values.hasGracenoteChanged());
    EXPECT_FALSE(values.testDsAllowedDataItemIds());
    EXPECT_FALSE(setter.set(values));
  }
}

// Every member of the document changed, read back and written again.
TEST(PersistentValuesTest, MarshalUnmarshalRoundTrip) {
  LumJson::Value changed = Document(PV());
  EXPECT_EQ(69u, changed.size());
  int index = 0;
  for (const std::string& key : changed.getMemberNames()) {
    LumJson::Value& member = changed[key];
    const std::string distinct = "v" + std::to_string(++index);
    if (member.isArray()) {
      member.append(distinct);
    } else {
      member = member.isBool()     ? LumJson::Value(!member.asBool())
               : member.isString() ? LumJson::Value(distinct)
                                   : LumJson::Value(LumJson::Int64{4000000000} + index);
    }
  }
  PV values;
  ASSERT_TRUE(values.unmarshal(JsonUtil::WriteCompact(changed)));
  EXPECT_EQ(changed, Document(values));
}

// A member of the wrong kind, or a number that does not fit an unsigned
// 32-bit value exactly, keeps the current value with a warning; the others
// are still read.
TEST(PersistentValuesTest, MembersOfTheWrongKindKeepTheirValue) {
  const struct {
    const char* member;
    const char* key;
    const char* expected;  // the member afterwards, as compact JSON
    bool warned;
  } cases[] = {
      {"\"daPollDelayFixedMs\":-1", "daPollDelayFixedMs", "3150000", true},
      {"\"daPollDelayFixedMs\":4294967296", "daPollDelayFixedMs", "3150000", true},
      {"\"daPollDelayFixedMs\":1.5", "daPollDelayFixedMs", "3150000", true},
      {"\"gidSeqNum\":7.0", "gidSeqNum", "7", false},
      {"\"daSupportViewEnabled\":0", "daSupportViewEnabled", "true", true},
      {"\"gidToken\":5", "gidToken", "\"\"", true},
      {"\"dsAllowedDataItemIds\":\"DeviceInfoMac\"", "dsAllowedDataItemIds", "[]", true},
      {"\"dsAllowedDataItemIds\":[\"b\",5,null,\"a\",\"b\"]", "dsAllowedDataItemIds",
       "[\"a\",\"b\"]", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.member);
    LumTest::LogCapture capture("warning");
    PV values;
    ASSERT_TRUE(values.unmarshal(std::string("{") + c.member + ",\"suMaxRetryCount\":9}"));
    EXPECT_EQ(c.expected, JsonUtil::WriteCompact(Document(values)[c.key]));
    EXPECT_EQ(9u, values.getSuMaxRetryCount());
    EXPECT_EQ(c.warned,
              capture.text().find(std::string("Ignoring \"") + c.key + "\"") != std::string::npos);
  }
}

// Reading the file hands on what the back end sent in an earlier run, but a
// device description read back is no change of the device.
TEST(PersistentValuesTest, ReadingRaisesMarksOnlyForValuesItChanges) {
  PV values;
  ASSERT_TRUE(values.unmarshal(R"({"daConsentUrl":"","dsGracenoteTag":""})"));
  EXPECT_FALSE(values.hasGracenoteChanged() || values.testDaConsentUrl());
  ASSERT_TRUE(values.unmarshal(
      R"({"daConsentUrl":"https://c","dsGracenoteTag":"t","dsAllowedDataItemIds":["x"],"deviceId":"d"})"));
  EXPECT_FALSE(values.hasDeviceInfoChanged());
  EXPECT_TRUE(values.hasGracenoteChanged());
  EXPECT_TRUE(values.testDaConsentUrl());
  EXPECT_FALSE(values.testDaConsentUrl()) << "testing clears the mark";
  EXPECT_TRUE(values.testDsAllowedDataItemIds());
}

LumJson::Value Device() {
  LumJson::Value device;
  for (const char* key : {"id", "model", "subModel", "brand", "esn", "mac", "swVersion"}) {
    device[key] = std::string(key) + "-1";
  }
  return device;
}

// The start-up objects, built from texts in the order the core manager uses.
struct Start {
  Start(const std::string& dir, const std::string& certPem,
        const LumJson::Value& deviceText = Device())
      : config(("{\"core\":{\"persistentPath\":\"" + dir + "\"}}").c_str()),
        identity(("{\"cert\":" + JsonUtil::WriteCompact(certPem) + "}").c_str()),
        device(JsonUtil::WriteCompact(deviceText).c_str(), false, "", config.getPersistentPath()),
        values(identity, config, device) {}
  bool store() { return values.store(config.getPersistentPath()); }
  std::string stored() const { return FileUtil::Load(config.getPersistentPath(), "core"); }

  Lum::Core::CoreConfig config;
  Lum::Core::ProductIdentity identity;
  Lum::Core::DeviceValues device;
  PV values;
};

class PersistentStartTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    Lum::Tools::TestPki pki;
    std::string key;
    ASSERT_TRUE(pki.generate());
    ASSERT_TRUE(pki.issueLeaf("myopid.lum.localhost:4443", Lum::Tools::KeyType::EcP256, true,
                              &cert_, &key));
  }
  static std::string cert_;
  LumTest::TempDir dir_;
};

std::string PersistentStartTest::cert_;

TEST_F(PersistentStartTest, FirstStartWritesDefaultsAndLaterStoresOnlyChanges) {
  Start start(dir_.path(), cert_);
  EXPECT_FALSE(start.values.isPersisted());
  EXPECT_TRUE(start.values.hasDeviceInfoChanged());
  ASSERT_TRUE(start.store());
  EXPECT_TRUE(start.values.isPersisted());

  LumJson::Value expected = Document(PV());
  const LumJson::Value device = Device();
  for (const std::string& key : device.getMemberNames()) {
    expected["device" + std::string(1, std::toupper(key[0])) + key.substr(1)] = device[key];
  }
  expected["certOpid"] = "myopid";
  expected["certInstance"] = "lum.localhost:4443";
  LumJson::Value stored;
  ASSERT_TRUE(JsonUtil::ParseStrict(start.stored(), stored));
  EXPECT_EQ(expected, stored);
  EXPECT_EQ(PV::BuiltInSdkVersion(), stored["sdkVersion"].asString());

  // Storing again writes only after a change: with the file gone, a store
  // that writes would bring it back.
  ASSERT_TRUE(FileUtil::Drop(dir_.path(), "core"));
  EXPECT_FALSE(start.values.setDaPollDelayFixedMs(3150000));  // its current value
  EXPECT_TRUE(start.store());
  EXPECT_EQ("", start.stored());
  EXPECT_TRUE(start.values.setDaPollDelayFixedMs(60000));
  EXPECT_TRUE(start.store());
  std::string text;
  start.values.marshal(text);
  EXPECT_EQ(text, start.stored());
}

// A restart reads what the last run stored; after a drop it starts afresh.
TEST_F(PersistentStartTest, RestartKeepsTokenAndSequenceNumbersUntilDropped) {
  {
    Start first(dir_.path(), cert_);
    first.values.setGidToken("gid-token");
    first.values.setOpidSeqNum(11);
    first.values.setGidSeqNum(4294967295u);
    first.values.setSynchronized(true);
    ASSERT_TRUE(first.store());
  }
  Start second(dir_.path(), cert_);
  EXPECT_EQ("gid-token", second.values.getGidToken());
  EXPECT_EQ(11u, second.values.getOpidSeqNum());
  EXPECT_EQ(4294967295u, second.values.getGidSeqNum());
  EXPECT_TRUE(second.values.getSynchronized());
  EXPECT_TRUE(second.values.isPersisted());
  EXPECT_FALSE(second.values.hasDeviceInfoChanged());
  ASSERT_TRUE(second.values.drop(second.config.getPersistentPath()));
  EXPECT_EQ("", second.stored());
  Start third(dir_.path(), cert_);
  EXPECT_EQ("", third.values.getGidToken());
  EXPECT_FALSE(third.values.isPersisted());
}

// The back end learns of a changed description through a synchronisation,
// which only the fields it is told about trigger.
TEST_F(PersistentStartTest, ChangedDeviceAtRestartIsMarked) {
  // The field, and whether the back end is told about it.
  const std::pair<const char*, bool> cases[] = {{"swVersion", true}, {"id", true}, {"mac", false}};
  for (const auto& [field, reported] : cases) {
    SCOPED_TRACE(field);
    LumTest::TempDir dir;
    {
      Start first(dir.path(), cert_);
      first.values.setSynchronized(true);
      ASSERT_TRUE(first.store());
    }
    LumJson::Value changed = Device();
    changed[field] = "new";
    Start second(dir.path(), cert_, changed);
    EXPECT_EQ(!reported, second.values.getSynchronized());
    EXPECT_FALSE(second.values.isPersisted());
    EXPECT_TRUE(second.values.hasDeviceInfoChanged());
  }
}

TEST_F(PersistentStartTest, CorruptFileKeepsDefaultsAndIsRewritten) {
  for (const char* content : {"{\"gidToken\":\"t\"", "[{\"gidToken\":\"t\"}]"}) {
    SCOPED_TRACE(content);
    LumTest::TempDir dir;
    // Written by hand, as an older agent or a person would: no checksum.
    LumTest::WriteFile(dir.file("core"), content);
    Start start(dir.path(), cert_);
    EXPECT_EQ("", start.values.getGidToken());
    EXPECT_FALSE(start.values.isPersisted());
    ASSERT_TRUE(start.store());
    LumJson::Value root;
    EXPECT_TRUE(JsonUtil::ParseStrict(start.stored(), root));
  }
}

}  // namespace
