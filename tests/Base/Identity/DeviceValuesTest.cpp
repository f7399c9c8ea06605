// The device description: placeholders, then the platform's values, then the
// device text; and the simulated software version.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Base/DeviceValues.h"
#include "Platform/FileUtil.h"
#include "lum_platform.h"
#include "support/LogCapture.h"
#include "support/PlatformRegistration.h"
#include "support/TestSupport.h"

namespace {

using Lum::Core::DeviceValues;
using Lum::Sv::StringGetter;
using LumTest::Registration;

struct Values {
  std::string id, model, subModel, brand, esn, mac, swVersion;
};

Values Read(const DeviceValues& device) {
  return {device.getId(),  device.getModel(), device.getSubModel(), device.getBrand(),
          device.getEsn(), device.getMac(),   device.getSwVersion()};
}

void ExpectValues(const Values& actual, const Values& expected) {
  EXPECT_EQ(actual.id, expected.id);
  EXPECT_EQ(actual.model, expected.model);
  EXPECT_EQ(actual.subModel, expected.subModel);
  EXPECT_EQ(actual.brand, expected.brand);
  EXPECT_EQ(actual.esn, expected.esn);
  EXPECT_EQ(actual.mac, expected.mac);
  EXPECT_EQ(actual.swVersion, expected.swVersion);
}

// A television whose platform reports every value, or (blank) reports each
// as an empty text.
bool g_blank = false;
std::string Pick(const char* value) {
  return g_blank ? "" : value;
}
std::string Serial() {
  return Pick("SN-4711");
}
std::string Model() {
  return Pick("55NV900");
}
std::string SubModel() {
  return Pick("EU-2");
}
std::string Brand() {
  return Pick("Norvik Premium");
}
std::string Mac() {
  return Pick("a4:5e:60:01:02:03");
}
std::string SwVersion() {
  return Pick("V8-T918-LF1V321");
}

class Platform {
 public:
  explicit Platform(bool blank) { g_blank = blank; }

 private:
  Registration<StringGetter> serial_{Lum::Sv::RegGetDeviceSN, Serial};
  Registration<StringGetter> model_{Lum::Sv::RegGetLumModel, Model};
  Registration<StringGetter> subModel_{Lum::Sv::RegGetLumSubModel, SubModel};
  Registration<StringGetter> brand_{Lum::Sv::RegGetBrand, Brand};
  Registration<StringGetter> mac_{Lum::Sv::RegGetMacAddress, Mac};
  Registration<StringGetter> swVersion_{Lum::Sv::RegGetSwVersion, SwVersion};
};

const Values kPlatform = {"SN-4711", "55NV900",           "EU-2",           "Norvik Premium",
                          "SN-4711", "a4:5e:60:01:02:03", "V8-T918-LF1V321"};
const Values kUnplatformed = {"Test_ID", "Norvik_Test_Model", "0002", "Norvik", "Test_ID",
                              "unknown", "Norvik_Softversion"};
const Values kPlaceholders = {"veltrane_id",        "veltrane_model", "veltrane_sub_model",
                              "veltrane_brand",     "veltrane_esn",   "veltrane_mac",
                              "veltrane_sw_version"};

enum class Source { None, Full, Blank };

// Deeper than the JSON reader accepts: it must be refused, not thrown.
const std::string kDeepText = "{\"model\":" + std::string(5000, '[') + std::string(5000, ']') + "}";

TEST(DeviceValues, PlatformThenDeviceText) {
  const Values fullText = {"id-1", "model-1", "sub-1", "brand-1", "esn-1", "mac-1", "sw-1"};
  Values onlyModel = kPlatform;
  onlyModel.model = "OLED65";
  Values mistyped = kPlatform;
  mistyped.brand = "";
  const struct {
    const char* name;
    Source platform;
    const char* device;
    Values expected;
  } cases[] = {
      {"nothing registered, empty object", Source::None, "{}", kUnplatformed},
      {"platform, empty object", Source::Full, "{}", kPlatform},
      {"only model in the text", Source::Full, R"({"model":"OLED65"})", onlyModel},
      {"text overrides everything", Source::Full,
       R"({"id":"id-1","model":"model-1","subModel":"sub-1","brand":"brand-1","esn":"esn-1",)"
       R"("mac":"mac-1","swVersion":"sw-1","extra":true})",
       fullText},
      {"not JSON", Source::Full, "model=OLED65", kPlatform},
      {"truncated JSON", Source::Full, R"({"model":"OLED65")", kPlatform},
      {"an array", Source::Full, R"(["model"])", kPlatform},
      {"null text", Source::Full, nullptr, kPlatform},
      {"wrong types are ignored, an empty text is taken", Source::Full,
       R"({"model":5,"id":null,"brand":""})", mistyped},
      {"platform without values keeps the placeholders", Source::Blank, "{}", kPlaceholders},
      {"nesting beyond the parser's depth limit", Source::Full, kDeepText.c_str(), kPlatform},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::unique_ptr<Platform> platform;
    if (c.platform != Source::None) {
      platform = std::make_unique<Platform>(c.platform == Source::Blank);
    }
    ExpectValues(Read(DeviceValues(c.device, false, "", "")), c.expected);
  }
}

TEST(DeviceValues, SimulatedSoftwareVersion) {
  const struct {
    const char* name;
    bool simulate;
    const char* initial;
    const char* file;  // null: no "swVersion" file
    const char* device;
    const char* expected;
  } cases[] = {
      {"simulation off uses the platform", false, "1.0.0", R"({"swVersion":"2.0.0"})", "{}",
       "V8-T918-LF1V321"},
      {"no file gives the initial version", true, "1.0.0", nullptr, "{}", "1.0.0"},
      {"the file's version", true, "1.0.0", R"({"swVersion":"2.0.0"})", "{}", "2.0.0"},
      {"a file that is not JSON", true, "1.0.0", "2.0.0", "{}", "1.0.0"},
      {"a file without the member", true, "1.0.0", R"({"version":"2.0.0"})", "{}", "1.0.0"},
      {"a member that is not a text", true, "1.0.0", R"({"swVersion":2})", "{}", "1.0.0"},
      {"the device text wins over the file", true, "1.0.0", R"({"swVersion":"2.0.0"})",
       R"({"swVersion":"9.9"})", "9.9"},
      {"the device text wins over the platform", false, "", nullptr, R"({"swVersion":"9.9"})",
       "9.9"},
      {"no initial version and no file", true, "", nullptr, "{}", "veltrane_sw_version"},
  };
  Platform platform(false);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    LumTest::TempDir dir;
    const std::string persistentPath = dir.path() + "/";
    if (c.file != nullptr) {
      ASSERT_TRUE(Lum::Core::FileUtil::Store(persistentPath, "swVersion", c.file));
    }
    DeviceValues device(c.device, c.simulate, c.initial, persistentPath);
    EXPECT_EQ(device.getSwVersion(), c.expected);
    EXPECT_EQ(device.getModel(), "55NV900");
  }
}

TEST(DeviceValues, DebugDumpNamesEveryValue) {
  Platform platform(false);
  LumTest::LogCapture log("debug");
  DeviceValues(R"({"mac":"m"})", false, "", "").logStateDebug();
  for (const char* line : {"device->id                           : SN-4711",
                           "device->model                        : 55NV900",
                           "device->subModel                     : EU-2",
                           "device->brand                        : Norvik Premium",
                           "device->esn                          : SN-4711",
                           "device->mac                          : m",
                           "device->swVersion                    : V8-T918-LF1V321"}) {
    EXPECT_TRUE(log.logged(line)) << line << "\n" << log.text();
  }
}

}  // namespace
