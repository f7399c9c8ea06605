#include <gtest/gtest.h>

#include <string>
#include <variant>
#include <vector>

#include "Base/PersistentValues.h"
#include "Platform/JsonUtil.h"

namespace {

using PV = Lum::Core::PersistentValues;
using Lum::Core::JsonUtil;

// The file a first start writes: every key at its default, in file order.
const char kDefaultDocument[] =
    R"({"gidToken":"","synchronized":false,"testMode":false,)"
    R"("sdkVersion":"4.3.0.B7E20D-20-g42e3d0f6-dirty","certOpid":"","certInstance":"",)"
    R"("deviceId":"","deviceModel":"","deviceSubModel":"","deviceBrand":"","deviceEsn":"",)"
    R"("deviceMac":"","deviceSwVersion":"","opidSeqNum":0,"gidSeqNum":0,)"
    R"("daSupportViewEnabled":true,"dsAggressiveQueuePercentage":85,)"
    R"("dsStandardDelayFixedMs":60000,"dsStandardDelayVariedMs":60000,)"
    R"("dsAggressiveDelayFixedMs":30000,"dsAggressiveDelayVariedMs":30000,)"
    R"("daConnectTimeoutMs":30001,"daMessageTimeoutMs":15000,"daPollDelayFixedMs":3150000,)"
    R"("daPollDelayVariedMs":900000,"daRetryDelayFixedMs":15000,"daRetryDelayVariedMs":15000,)"
    R"("daStartupDelayFixedMs":0,"daStartupDelayVariedMs":0,"dsConnectTimeoutMs":30000,)"
    R"("dsMessageTimeoutMs":15000,"dsRetryDelayFixedMs":15000,"dsRetryDelayVariedMs":15000,)"
    R"("dsStartupDelayFixedMs":0,"dsStartupDelayVariedMs":0,"svConnectTimeoutMs":30000,)"
    R"("svMessageTimeoutMs":15000,"svRetryDelayFixedMs":2500,"svRetryDelayVariedMs":2500,)"
    R"("svActiveTimeoutMs":60000,"svPausedTimeoutMs":180000,"svLbrAwsDomain":"","svMrsUrl":"",)"
    R"("svNetworkDiagTimeoutMs":20000,"svPingTestHostname":"","svSpeedTestDownloadSize":102400,)"
    R"("svSpeedTestDownloadTimeMs":20000,"svSpeedTestDownloadUrl":"",)"
    R"("svSpeedTestUploadSize":102400,"svSpeedTestUploadTimeMs":20000,)"
    R"("svSpeedTestUploadUrl":"","daConsentUrl":"","suConnectTimeoutMs":15000,)"
    R"("suMessageTimeoutMs":5000,"suMaxRetryCount":3,"suRetryDelayFixedMs":30000,)"
    R"("suRetryDelayVariedMs":30000,"suStagingConnectTimeoutMs":15000,)"
    R"("suStagingMessageTimeoutMs":5000,"suStagingMaxRetryCount":3,)"
    R"("suStagingRetryDelayFixedMs":5000,"suStagingRetryDelayVariedMs":5000,)"
    R"("suCheckForSoftwareUpdate":false,"dsGracenoteCloudAddress":"",)"
    R"("dsGracenoteCustomerId":"","dsGracenoteToken":"","dsGracenoteTag":"",)"
    R"("dsGracenoteLicense":"","dsAllowedDataItemIds":[]})";

struct Flag {
  bool (PV::*get)() const;
  bool (PV::*set)(bool);
};
struct Number {
  uint32_t (PV::*get)() const;
  bool (PV::*set)(uint32_t);
};
struct Text {
  const std::string& (PV::*get)() const;
  bool (PV::*set)(const std::string&);
};
enum Mark { kNone, kDevice, kConsent, kGracenote };
struct Accessor {
  const char* key;
  std::variant<Flag, Number, Text> pair;
  bool reported;  // reported to the back end: a change clears "synchronized"
  Mark mark;
};

const Accessor kAccessors[] = {
    {"gidToken", Text{&PV::getGidToken, &PV::setGidToken}, false, kNone},
    {"synchronized", Flag{&PV::getSynchronized, &PV::setSynchronized}, false, kNone},
    {"testMode", Flag{&PV::getTestMode, &PV::setTestMode}, true, kNone},
    {"sdkVersion", Text{&PV::getSdkVersion, &PV::setSdkVersion}, true, kNone},
    {"certOpid", Text{&PV::getCertOpid, &PV::setCertOpid}, true, kNone},
    {"certInstance", Text{&PV::getCertInstance, &PV::setCertInstance}, true, kNone},
    {"deviceId", Text{&PV::getDeviceId, &PV::setDeviceId}, true, kDevice},
    {"deviceModel", Text{&PV::getDeviceModel, &PV::setDeviceModel}, true, kDevice},
    {"deviceSubModel", Text{&PV::getDeviceSubModel, &PV::setDeviceSubModel}, true, kDevice},
    {"deviceBrand", Text{&PV::getDeviceBrand, &PV::setDeviceBrand}, true, kDevice},
    {"deviceEsn", Text{&PV::getDeviceEsn, &PV::setDeviceEsn}, false, kDevice},
    {"deviceMac", Text{&PV::getDeviceMac, &PV::setDeviceMac}, false, kDevice},
    {"deviceSwVersion", Text{&PV::getDeviceSwVersion, &PV::setDeviceSwVersion}, true, kDevice},
    {"opidSeqNum", Number{&PV::getOpidSeqNum, &PV::setOpidSeqNum}, false, kNone},
    {"gidSeqNum", Number{&PV::getGidSeqNum, &PV::setGidSeqNum}, false, kNone},
    {"daSupportViewEnabled", Flag{&PV::getDaSupportViewEnabled, &PV::setDaSupportViewEnabled},
     false, kNone},
    {"dsAggressiveQueuePercentage",
     Number{&PV::getDsAggressiveQueuePercentage, &PV::setDsAggressiveQueuePercentage}, false,
     kNone},
    {"dsStandardDelayFixedMs",
     Number{&PV::getDsStandardDelayFixedMs, &PV::setDsStandardDelayFixedMs}, false, kNone},
    {"dsStandardDelayVariedMs",
     Number{&PV::getDsStandardDelayVariedMs, &PV::setDsStandardDelayVariedMs}, false, kNone},
    {"dsAggressiveDelayFixedMs",
     Number{&PV::getDsAggressiveDelayFixedMs, &PV::setDsAggressiveDelayFixedMs}, false, kNone},
    {"dsAggressiveDelayVariedMs",
     Number{&PV::getDsAggressiveDelayVariedMs, &PV::setDsAggressiveDelayVariedMs}, false, kNone},
    {"daConnectTimeoutMs", Number{&PV::getDaConnectTimeoutMs, &PV::setDaConnectTimeoutMs}, false,
     kNone},
    {"daMessageTimeoutMs", Number{&PV::getDaMessageTimeoutMs, &PV::setDaMessageTimeoutMs}, false,
     kNone},
    {"daPollDelayFixedMs", Number{&PV::getDaPollDelayFixedMs, &PV::setDaPollDelayFixedMs}, false,
     kNone},
    {"daPollDelayVariedMs", Number{&PV::getDaPollDelayVariedMs, &PV::setDaPollDelayVariedMs}, false,
     kNone},
    {"daRetryDelayFixedMs", Number{&PV::getDaRetryDelayFixedMs, &PV::setDaRetryDelayFixedMs}, false,
     kNone},
    {"daRetryDelayVariedMs", Number{&PV::getDaRetryDelayVariedMs, &PV::setDaRetryDelayVariedMs},
     false, kNone},
    {"daStartupDelayFixedMs", Number{&PV::getDaStartupDelayFixedMs, &PV::setDaStartupDelayFixedMs},
     false, kNone},
    {"daStartupDelayVariedMs",
     Number{&PV::getDaStartupDelayVariedMs, &PV::setDaStartupDelayVariedMs}, false, kNone},
    {"dsConnectTimeoutMs", Number{&PV::getDsConnectTimeoutMs, &PV::setDsConnectTimeoutMs}, false,
     kNone},
    {"dsMessageTimeoutMs", Number{&PV::getDsMessageTimeoutMs, &PV::setDsMessageTimeoutMs}, false,
     kNone},
    {"dsRetryDelayFixedMs", Number{&PV::getDsRetryDelayFixedMs, &PV::setDsRetryDelayFixedMs}, false,
     kNone},
    {"dsRetryDelayVariedMs", Number{&PV::getDsRetryDelayVariedMs, &PV::setDsRetryDelayVariedMs},
     false, kNone},
    {"dsStartupDelayFixedMs", Number{&PV::getDsStartupDelayFixedMs, &PV::setDsStartupDelayFixedMs},
     false, kNone},
    {"dsStartupDelayVariedMs",
     Number{&PV::getDsStartupDelayVariedMs, &PV::setDsStartupDelayVariedMs}, false, kNone},
    {"svConnectTimeoutMs", Number{&PV::getSvConnectTimeoutMs, &PV::setSvConnectTimeoutMs}, false,
     kNone},
    {"svMessageTimeoutMs", Number{&PV::getSvMessageTimeoutMs, &PV::setSvMessageTimeoutMs}, false,
     kNone},
    {"svRetryDelayFixedMs", Number{&PV::getSvRetryDelayFixedMs, &PV::setSvRetryDelayFixedMs}, false,
     kNone},
    {"svRetryDelayVariedMs", Number{&PV::getSvRetryDelayVariedMs, &PV::setSvRetryDelayVariedMs},
     false, kNone},
    {"svActiveTimeoutMs", Number{&PV::getSvActiveTimeoutMs, &PV::setSvActiveTimeoutMs}, false,
     kNone},
    {"svPausedTimeoutMs", Number{&PV::getSvPausedTimeoutMs, &PV::setSvPausedTimeoutMs}, false,
     kNone},
    {"svLbrAwsDomain", Text{&PV::getSvLbrAwsDomain, &PV::setSvLbrAwsDomain}, false, kNone},
    {"svMrsUrl", Text{&PV::getSvMrsUrl, &PV::setSvMrsUrl}, false, kNone},
    {"svNetworkDiagTimeoutMs",
     Number{&PV::getSvNetworkDiagTimeoutMs, &PV::setSvNetworkDiagTimeoutMs}, false, kNone},
    {"svPingTestHostname", Text{&PV::getSvPingTestHostname, &PV::setSvPingTestHostname}, false,
     kNone},
    {"svSpeedTestDownloadSize",
     Number{&PV::getSvSpeedTestDownloadSize, &PV::setSvSpeedTestDownloadSize}, false, kNone},
    {"svSpeedTestDownloadTimeMs",
     Number{&PV::getSvSpeedTestDownloadTimeMs, &PV::setSvSpeedTestDownloadTimeMs}, false, kNone},
    {"svSpeedTestDownloadUrl", Text{&PV::getSvSpeedTestDownloadUrl, &PV::setSvSpeedTestDownloadUrl},
     false, kNone},
    {"svSpeedTestUploadSize", Number{&PV::getSvSpeedTestUploadSize, &PV::setSvSpeedTestUploadSize},
     false, kNone},
    {"svSpeedTestUploadTimeMs",
     Number{&PV::getSvSpeedTestUploadTimeMs, &PV::setSvSpeedTestUploadTimeMs}, false, kNone},
    {"svSpeedTestUploadUrl", Text{&PV::getSvSpeedTestUploadUrl, &PV::setSvSpeedTestUploadUrl},
     false, kNone},
    {"daConsentUrl", Text{&PV::getDaConsentUrl, &PV::setDaConsentUrl}, false, kConsent},
    {"suConnectTimeoutMs", Number{&PV::getSuConnectTimeoutMs, &PV::setSuConnectTimeoutMs}, false,
     kNone},
    {"suMessageTimeoutMs", Number{&PV::getSuMessageTimeoutMs, &PV::setSuMessageTimeoutMs}, false,
     kNone},
    {"suMaxRetryCount", Number{&PV::getSuMaxRetryCount, &PV::setSuMaxRetryCount}, false, kNone},
    {"suRetryDelayFixedMs", Number{&PV::getSuRetryDelayFixedMs, &PV::setSuRetryDelayFixedMs}, false,
     kNone},
    {"suRetryDelayVariedMs", Number{&PV::getSuRetryDelayVariedMs, &PV::setSuRetryDelayVariedMs},
     false, kNone},
    {"suStagingConnectTimeoutMs",
     Number{&PV::getSuStagingConnectTimeoutMs, &PV::setSuStagingConnectTimeoutMs}, false, kNone},
    {"suStagingMessageTimeoutMs",
     Number{&PV::getSuStagingMessageTimeoutMs, &PV::setSuStagingMessageTimeoutMs}, false, kNone},
    {"suStagingMaxRetryCount",
     Number{&PV::getSuStagingMaxRetryCount, &PV::setSuStagingMaxRetryCount}, false, kNone},
    {"suStagingRetryDelayFixedMs",
     Number{&PV::getSuStagingRetryDelayFixedMs, &PV::setSuStagingRetryDelayFixedMs}, false, kNone},
    {"suStagingRetryDelayVariedMs",
     Number{&PV::getSuStagingRetryDelayVariedMs, &PV::setSuStagingRetryDelayVariedMs}, false,
     kNone},
    {"suCheckForSoftwareUpdate",
     Flag{&PV::getSuCheckForSoftwareUpdate, &PV::setSuCheckForSoftwareUpdate}, true, kNone},
    {"dsGracenoteCloudAddress",
     Text{&PV::getDsGracenoteCloudAddress, &PV::setDsGracenoteCloudAddress}, false, kGracenote},
    {"dsGracenoteCustomerId", Text{&PV::getDsGracenoteCustomerId, &PV::setDsGracenoteCustomerId},
     false, kGracenote},
    {"dsGracenoteToken", Text{&PV::getDsGracenoteToken, &PV::setDsGracenoteToken}, false,
     kGracenote},
    {"dsGracenoteTag", Text{&PV::getDsGracenoteTag, &PV::setDsGracenoteTag}, false, kGracenote},
    {"dsGracenoteLicense", Text{&PV::getDsGracenoteLicense, &PV::setDsGracenoteLicense}, false,
     kGracenote},
};

LumJson::Value Document(const PV& values) {
  std::string text;
  values.marshal(text);
  LumJson::Value root;
  EXPECT_TRUE(JsonUtil::ParseStrict(text, root)) << text;
  return root;
}

// Sets the value behind `accessor` to one other than its default, distinct
// per `index`, checks the getter, and returns the value as JSON.
LumJson::Value SetOtherValue(PV& values, const Accessor& accessor, uint32_t index) {
  struct Setter {
    PV& values;
    uint32_t index;
    LumJson::Value operator()(const Flag& a) const {
      const bool value = !(values.*a.get)();
      EXPECT_TRUE((values.*a.set)(value));
      EXPECT_EQ(value, (values.*a.get)());
      return value;
    }
    LumJson::Value operator()(const Number& a) const {
      const uint32_t value = 4000000000u + index;
      EXPECT_TRUE((values.*a.set)(value));
      EXPECT_EQ(value, (values.*a.get)());
      // As the reader types every number that fits a signed 64-bit value.
      return LumJson::Value(static_cast<LumJson::Int64>(value));
    }
    LumJson::Value operator()(const Text& a) const {
      const std::string value = "v\"" + std::to_string(index) + "\u00e9";
      EXPECT_TRUE((values.*a.set)(value));
      EXPECT_EQ(value, (values.*a.get)());
      return value;
    }
  };
  return std::visit(Setter{values, index}, accessor.pair);
}

// Setting the current value again must report no change.
bool SetCurrentValue(PV& values, const Accessor& accessor) {
  return std::visit([&values](const auto& a) { return (values.*a.set)((values.*a.get)()); },
                    accessor.pair);
}

bool AnyMarkRaised(PV& values) {
  const bool device = values.hasDeviceInfoChanged();
  const bool gracenote = values.hasGracenoteChanged();
  const bool consent = values.testDaConsentUrl();
  const bool ids = values.testDsAllowedDataItemIds();
  return device || gracenote || consent || ids;
}

bool MarkRaised(PV& values, Mark mark) {
  switch (mark) {
    case kDevice:
      return values.hasDeviceInfoChanged();
    case kConsent:
      return values.testDaConsentUrl();
    case kGracenote:
      return values.hasGracenoteChanged();
    case kNone:
      break;
  }
  return AnyMarkRaised(values);
}

TEST(PersistentValuesTest, DefaultsMarshalToTheDocumentInFileOrder) {
  PV values;
  std::string text;
  values.marshal(text);
  EXPECT_EQ(kDefaultDocument, text);
  EXPECT_FALSE(values.isPersisted());
  EXPECT_FALSE(AnyMarkRaised(values));
}

// Each setter changes exactly its own key, has the side effects of its kind,
// reports no change for an equal value, and the value survives a round trip.
TEST(PersistentValuesTest, EverySetterChangesOnlyItsKeyAndRoundTrips) {
  const LumJson::Value defaults = Document(PV());
  uint32_t index = 0;
  for (const Accessor& accessor : kAccessors) {
    SCOPED_TRACE(accessor.key);
    PV values;
    const bool isSyncFlag = std::string(accessor.key) == "synchronized";
    if (!isSyncFlag) {
      values.setSynchronized(true);
    }
    const LumJson::Value value = SetOtherValue(values, accessor, ++index);

    LumJson::Value expected = defaults;
    expected[accessor.key] = value;
    if (!isSyncFlag) {
      expected["synchronized"] = !accessor.reported;
    }
    EXPECT_EQ(expected, Document(values));
    EXPECT_FALSE(values.isPersisted());
    EXPECT_EQ(accessor.mark != kNone, MarkRaised(values, accessor.mark));
    EXPECT_FALSE(SetCurrentValue(values, accessor));
    EXPECT_EQ(expected, Document(values));

    std::string text;
    values.marshal(text);
    PV reloaded;
    ASSERT_TRUE(reloaded.unmarshal(text));
    EXPECT_EQ(expected, Document(reloaded));
    EXPECT_FALSE(reloaded.isPersisted());
  }
}

TEST(PersistentValuesTest, EveryKeyIsReadTogether) {
  PV source;
  uint32_t index = 0;
  for (const Accessor& accessor : kAccessors) {
    SetOtherValue(source, accessor, ++index);
  }
  source.setDsAllowedDataItemIds({"DeviceInfoMac", "DeviceInfoEsn", "b,c"});
  std::string text;
  source.marshal(text);

  PV reloaded;
  ASSERT_TRUE(reloaded.unmarshal(text));
  std::string again;
  reloaded.marshal(again);
  EXPECT_EQ(text, again);
  EXPECT_EQ((std::set<std::string>{"DeviceInfoEsn", "DeviceInfoMac", "b,c"}),
            reloaded.getDsAllowedDataItemIds());
}

TEST(PersistentValuesTest, TextThatIsNotAnObjectChangesNothing) {
  const std::string texts[] = {"",
                               "garbage",
                               "{\"gidToken\":\"t\"",
                               "[{\"gidToken\":\"t\"}]",
                               "\"gidToken\"",
                               "{\"gidToken\":\"t\"} {}",
                               "{\"gidToken\":\"t\",}",
                               std::string(5000, '[')};
  for (const std::string& text : texts) {
    SCOPED_TRACE(text.substr(0, 40));
    PV values;
    values.setDaPollDelayFixedMs(7);
    const LumJson::Value before = Document(values);
    EXPECT_FALSE(values.unmarshal(text));
    EXPECT_EQ(before, Document(values));
  }
}

// A member of the wrong kind, or a number that does not fit an unsigned
// 32-bit value exactly, keeps the current value; the others are still read.
TEST(PersistentValuesTest, MistypedOrOutOfRangeMembersKeepTheirValue) {
  struct Case {
    const char* member;
    const char* key;
    LumJson::Value kept;
  };
  const Case cases[] = {
      {"\"daPollDelayFixedMs\":-1", "daPollDelayFixedMs", 3150000},
      {"\"daPollDelayFixedMs\":4294967296", "daPollDelayFixedMs", 3150000},
      {"\"daPollDelayFixedMs\":1.5", "daPollDelayFixedMs", 3150000},
      {"\"daPollDelayFixedMs\":\"5\"", "daPollDelayFixedMs", 3150000},
      {"\"daPollDelayFixedMs\":true", "daPollDelayFixedMs", 3150000},
      {"\"daPollDelayFixedMs\":null", "daPollDelayFixedMs", 3150000},
      {"\"opidSeqNum\":-4294967295", "opidSeqNum", 0},
      {"\"synchronized\":1", "synchronized", false},
      {"\"synchronized\":\"true\"", "synchronized", false},
      {"\"daSupportViewEnabled\":0", "daSupportViewEnabled", true},
      {"\"gidToken\":5", "gidToken", ""},
      {"\"gidToken\":[\"t\"]", "gidToken", ""},
      {"\"daConsentUrl\":{}", "daConsentUrl", ""},
      {"\"dsAllowedDataItemIds\":\"DeviceInfoMac\"", "dsAllowedDataItemIds",
       LumJson::Value(LumJson::arrayValue)},
      {"\"dsAllowedDataItemIds\":{\"a\":\"b\"}", "dsAllowedDataItemIds",
       LumJson::Value(LumJson::arrayValue)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.member);
    PV values;
    ASSERT_TRUE(values.unmarshal(std::string("{") + c.member + ",\"suMaxRetryCount\":9}"));
    const LumJson::Value document = Document(values);
    EXPECT_EQ(c.kept, document[c.key]);
    EXPECT_EQ(9u, values.getSuMaxRetryCount());
  }
}

TEST(PersistentValuesTest, LimitsOfTheUnsignedRangeAreTaken) {
  PV values;
  ASSERT_TRUE(values.unmarshal(
      R"({"daPollDelayFixedMs":4294967295,"daPollDelayVariedMs":0,"gidSeqNum":7.0})"));
  EXPECT_EQ(4294967295u, values.getDaPollDelayFixedMs());
  EXPECT_EQ(0u, values.getDaPollDelayVariedMs());
  EXPECT_EQ(7u, values.getGidSeqNum());
}

TEST(PersistentValuesTest, AllowedIdsTakeOnlyTextElements) {
  PV values;
  ASSERT_TRUE(values.unmarshal(R"({"dsAllowedDataItemIds":["b",5,null,"a","b",["c"]]})"));
  EXPECT_EQ((std::set<std::string>{"a", "b"}), values.getDsAllowedDataItemIds());
  EXPECT_TRUE(values.testDsAllowedDataItemIds());
  EXPECT_FALSE(values.testDsAllowedDataItemIds());
}

// Reading the file hands on what the back end sent in an earlier run, but a
// device description read back is no change of the device.
TEST(PersistentValuesTest, ReadingRaisesMarksOnlyForValuesItChanges) {
  PV values;
  ASSERT_TRUE(values.unmarshal(R"({"daConsentUrl":"","deviceMac":"m","dsGracenoteTag":""})"));
  EXPECT_FALSE(AnyMarkRaised(values));

  ASSERT_TRUE(values.unmarshal(
      R"({"daConsentUrl":"https://c","dsGracenoteTag":"t","dsAllowedDataItemIds":["x"],"deviceId":"d"})"));
  EXPECT_FALSE(values.hasDeviceInfoChanged());
  EXPECT_TRUE(values.hasGracenoteChanged());
  EXPECT_TRUE(values.testDaConsentUrl());
  EXPECT_FALSE(values.testDaConsentUrl());
  EXPECT_TRUE(values.testDsAllowedDataItemIds());
  EXPECT_FALSE(values.testDsAllowedDataItemIds());
}

TEST(PersistentValuesTest, AllowedIdsSetterComparesSets) {
  PV values;
  EXPECT_FALSE(values.setDsAllowedDataItemIds({}));
  EXPECT_TRUE(values.setDsAllowedDataItemIds({"a", "b"}));
  EXPECT_TRUE(values.testDsAllowedDataItemIds());
  EXPECT_FALSE(values.setDsAllowedDataItemIds({"b", "a"}));
  EXPECT_FALSE(values.testDsAllowedDataItemIds());
  EXPECT_EQ(R"(["a","b"])", JsonUtil::WriteCompact(Document(values)["dsAllowedDataItemIds"]));
}

}  // namespace
