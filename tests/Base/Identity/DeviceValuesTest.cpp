// The device description: placeholders, then the platform's values, then the
// device text; and the simulated software version.
#include <gtest/gtest.h>

#include <array>
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

// id, model, subModel, brand, esn, mac, swVersion
using Values = std::array<std::string, 7>;

Values Read(const DeviceValues& d) {
  return {d.getId(),  d.getModel(), d.getSubModel(), d.getBrand(),
          d.getEsn(), d.getMac(),   d.getSwVersion()};
}

// A television whose platform reports every value, or (blank) each as an
// empty text.
bool g_blank = false;
struct Tv {
  static std::string Pick(const char* value) { return g_blank ? "" : value; }
  static std::string Serial() { return Pick("SN-4711"); }
  static std::string Model() { return Pick("55NV900"); }
  static std::string SubModel() { return Pick("EU-2"); }
  static std::string Brand() { return Pick("Norvik Premium"); }
  static std::string Mac() { return Pick("a4:5e:60:01:02:03"); }
  static std::string SwVersion() { return Pick("V8-T918-LF1V321"); }
};

class Platform {
 public:
  explicit Platform(bool blank) { g_blank = blank; }

 private:
  Registration<StringGetter> serial_{Lum::Sv::RegGetDeviceSN, Tv::Serial};
  Registration<StringGetter> model_{Lum::Sv::RegGetLumModel, Tv::Model};
  Registration<StringGetter> subModel_{Lum::Sv::RegGetLumSubModel, Tv::SubModel};
  Registration<StringGetter> brand_{Lum::Sv::RegGetBrand, Tv::Brand};
  Registration<StringGetter> mac_{Lum::Sv::RegGetMacAddress, Tv::Mac};
  Registration<StringGetter> swVersion_{Lum::Sv::RegGetSwVersion, Tv::SwVersion};
};

const Values kPlatform = {"SN-4711", "55NV900",           "EU-2",           "Norvik Premium",
                          "SN-4711", "a4:5e:60:01:02:03", "V8-T918-LF1V321"};

TEST(DeviceValues, PlatformThenDeviceText) {
  Values onlyModel = kPlatform;
  onlyModel[1] = "OLED65";
  Values mistyped = kPlatform;
  mistyped[3] = "";
  const struct {
    const char* name;
    bool blankPlatform;
    const char* device;
    Values expected;
  } cases[] = {
      {"platform, empty object", false, "{}", kPlatform},
      {"only model in the text", false, R"({"model":"OLED65"})", onlyModel},
      {"text overrides everything",
       false,
       R"({"id":"i","model":"m","subModel":"s","brand":"b","esn":"e","mac":"a","swVersion":"v"})",
       {"i", "m", "s", "b", "e", "a", "v"}},
      {"not JSON", false, "model=OLED65", kPlatform},
      {"wrong types are ignored, an empty text is taken", false,
       R"({"model":5,"id":null,"brand":""})", mistyped},
      {"platform without values keeps the placeholders",
       true,
       "{}",
       {"veltrane_id", "veltrane_model", "veltrane_sub_model", "veltrane_brand", "veltrane_esn",
        "veltrane_mac", "veltrane_sw_version"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const Platform platform(c.blankPlatform);
    EXPECT_EQ(Read(DeviceValues(c.device, false, "", "")), c.expected);
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
      {"a version that is not a text", true, "1.0.0", R"({"swVersion":5})", "{}", "1.0.0"},
      {"the device text wins over the file", true, "1.0.0", R"({"swVersion":"2.0.0"})",
       R"({"swVersion":"9.9"})", "9.9"},
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
    LumTest::LogCapture capture("warning");
    const DeviceValues device(c.device, c.simulate, c.initial, persistentPath);
    EXPECT_EQ(device.getSwVersion(), c.expected);
    EXPECT_EQ(device.getModel(), "55NV900");
    // A file that is there but holds no version is said to be ignored.
    const bool unusable = c.simulate && c.file != nullptr && c.expected == std::string(c.initial);
    EXPECT_EQ(unusable, capture.logged("Ignoring swVersion, it does not hold a software version"));
  }
}

}  // namespace
