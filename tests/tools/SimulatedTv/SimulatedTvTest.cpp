// The simulated television seen through the agent's own wrappers, as the
// support commands see it: what it accepts is read back, what it does not
// offer is refused without a change, and the resets bring back the factory
// settings. Command tests build on these rules.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "Project/NorvikInterfaces.h"
#include "support/TestSupport.h"
#include "tools/tv/SimulatedTv.h"

namespace {

using namespace Lum::Sv;
using LumSim::SimulatedTv;
using LumSim::TvState;

class SimulatedTvTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tv().setFileDirectory("");
    tv().reset();
    tv().install();
  }
  void TearDown() override { tv().uninstall(); }
  static SimulatedTv& tv() { return SimulatedTv::Instance(); }
};

bool Contains(const std::vector<std::string>& list, const std::string& value) {
  for (const std::string& entry : list) {
    if (entry == value) return true;
  }
  return false;
}

// One setting: its setter given a value it offers (true) or one it does not
// (false), its getter, and its list of choices where it has one.
struct Setting {
  const char* name;
  std::function<int(bool)> set;
  std::function<std::string()> get;
  std::string changed;  // what `set(true)` leaves
  std::function<int(std::vector<std::string>&)> list;
};

std::string Text(int value) {
  return std::to_string(value);
}

const std::vector<Setting>& Settings() {
  static const std::vector<Setting> settings = {
      {"PictureMode", [](bool ok) { return NkSetPictureMode(ok ? "Cinema" : "Cinema Night"); },
       NkGetPictureMode, "Cinema", NkGetVStrPictureModeList},
      {"ColourTemperature", [](bool ok) { return NkSetColourTemperature(ok ? "Warm" : "warm"); },
       NkGetColourTemperature, "Warm", NkGetVStrColourTemperatureModeList},
      {"AdaptiveContrast", [](bool ok) { return NkSetAdaptiveContrast(ok ? "High" : ""); },
       NkGetAdaptiveContrast, "High", NkGetVStrAdaptiveContrastList},
      {"UltraSmoothMotion", [](bool ok) { return NkSetUltraSmoothMotion(ok ? "Film" : "Custom"); },
       NkGetUltraSmoothMotion, "Film", NkGetVStrUltraSmoothMotionList},
      {"NoiseReduction", [](bool ok) { return NkSetNoiseReduction(ok ? "Off" : "Auto"); },
       NkGetNoiseReduction, "Off", NkGetVStrNoiseReductionList},
      {"SoundMode", [](bool ok) { return NkSetSoundMode(ok ? "Music" : "Stardard"); },
       NkGetSoundMode, "Music", NkGetVStrSoundModeList},
      {"MuteStatus", [](bool ok) { return NkSetMuteStatus(ok ? "Mute" : "Muted"); },
       NkGetMuteStatus, "Mute", nullptr},
      {"HeadphoneMode", [](bool ok) { return NkSetHeadphoneMode(ok ? "Headphone Only" : "Both"); },
       NkGetHeadphoneMode, "Headphone Only", NkGetVStrHeadphoneModeList},
      {"AudioOutput", [](bool ok) { return NkSetAudioOutput(ok ? "ARC" : "HDMI"); },
       NkGetAudioOutput, "ARC", NkGetVStrAudioOutputList},
      {"Subtitle", [](bool ok) { return NkSetSubtitle(ok ? "German" : "Klingon"); }, NkGetSubtitle,
       "German", NkGetVStrSubtitleList},
      {"AudioLanguage", [](bool ok) { return NkSetAudioLanguage(ok ? "French" : "Klingon"); },
       NkGetAudioLanguage, "French", NkGetVStrAudioLanguageList},
      // Aliases are names the user gave, not sources one can switch to.
      {"Source", [](bool ok) { return NkSetSource(ok ? "HDMI1" : "Game console"); },
       NkGetSourceName, "HDMI1", NkGetVStrSourceList},
      {"Volume", [](bool ok) { return NkSetVolume(ok ? 100 : 101); },
       [] { return Text(NkGetVolume()); }, "100", nullptr},
      {"ColourSaturation", [](bool ok) { return NkSetColourSaturation(ok ? 0 : -1); },
       [] { return Text(NkGetColourSaturation()); }, "0", nullptr},
      {"LipSync", [](bool ok) { return NkSetLipSync(ok ? 20 : 21); },
       [] { return Text(NkGetLipSync()); }, "20", nullptr},
      {"EnhancedACRState", [](bool ok) { return NkSetEnhancedACRState(ok ? 1 : 2); },
       [] { return Text(NkGetEnhancedACRState()); }, "1", nullptr},
      {"Hbbtv", [](bool ok) { return NkEnableHbbtv(ok ? 0 : -1); },
       [] { return Text(NkIsHbbtv()); }, "0", nullptr},
  };
  return settings;
}

TEST_F(SimulatedTvTest, SettersChangeOnlyToWhatTheTelevisionOffers) {
  for (const Setting& setting : Settings()) {
    SCOPED_TRACE(setting.name);
    const std::string factory = setting.get();
    ASSERT_NE(factory, setting.changed) << "the case would prove nothing";
    std::vector<std::string> choices;
    if (setting.list) {
      EXPECT_EQ(setting.list(choices), 0);
      EXPECT_TRUE(Contains(choices, factory)) << "the current value is not among the choices";
      EXPECT_TRUE(Contains(choices, setting.changed));
    }

    tv().update([](TvState& s) { s.refuseChanges = true; });
    EXPECT_EQ(setting.set(true), LumSim::kRefused);
    EXPECT_EQ(setting.get(), factory);
    tv().update([](TvState& s) { s.refuseChanges = false; });

    EXPECT_NE(setting.set(false), 0);
    EXPECT_EQ(setting.get(), factory);

    EXPECT_EQ(setting.set(true), 0);
    EXPECT_EQ(setting.get(), setting.changed);
  }
}

// Restore and reset of audio and picture quality bring back the factory
// picture and sound; a factory reset brings back everything else too. Each
// counts, and the record of key presses survives them all.
TEST_F(SimulatedTvTest, ResetsBringBackTheFactorySettings) {
  struct Reset {
    const char* name;
    std::function<int()> call;
    bool resetsAll;
    int TvState::*counter;
  };
  const Reset resets[] = {
      {"RestoreAQPQ", [] { return NkRestoreAQPQ(0); }, false, &TvState::aqpqRestores},
      {"ResetAQPQ", [] { return NkResetAQPQ(1); }, false, &TvState::aqpqResets},
      {"FactoryReset", NkFactoryReset, true, &TvState::factoryResets},
  };
  const TvState factory = TvState::Factory();
  ASSERT_EQ(LumKeyEventProc("HOME"), 0);
  for (const Reset& reset : resets) {
    SCOPED_TRACE(reset.name);
    for (const Setting& setting : Settings()) {
      ASSERT_EQ(setting.set(true), 0) << setting.name;
    }
    tv().update([](TvState& s) { s.refuseChanges = true; });
    EXPECT_EQ(reset.call(), LumSim::kRefused);
    EXPECT_EQ(NkGetPictureMode(), "Cinema");
    tv().update([](TvState& s) { s.refuseChanges = false; });

    EXPECT_EQ(reset.call(), 0);
    const TvState after = tv().snapshot();
    EXPECT_EQ(after.*reset.counter, 1);
    EXPECT_EQ(NkGetPictureMode(), factory.pictureMode.value);
    EXPECT_EQ(NkGetColourTemperature(), factory.colourTemperature.value);
    EXPECT_EQ(NkGetColourSaturation(), factory.colourSaturation);
    EXPECT_EQ(NkGetSoundMode(), factory.soundMode.value);
    EXPECT_EQ(NkGetMuteStatus(), factory.mute.value);
    EXPECT_EQ(NkGetVolume(), factory.volume);
    EXPECT_EQ(NkGetLipSync(), factory.lipSync);
    EXPECT_EQ(NkGetSourceName(), reset.resetsAll ? factory.source : "HDMI1");
    EXPECT_EQ(NkGetSubtitle(), reset.resetsAll ? factory.subtitle.value : "German");
    EXPECT_EQ(after.keyLog, std::vector<std::string>{"KEY_HOME"});
  }
}

// Key presses, inspections and the readable files: each answers 0 and leaves
// its trace, or refuses what the television does not know.
TEST_F(SimulatedTvTest, ActionsLeaveTheirTraceOrAreRefused) {
  LumTest::TempDir directory;
  ASSERT_TRUE(tv().setFileDirectory(directory.path()));
  ASSERT_EQ(NkSetPictureMode("Game"), 0);

  EXPECT_EQ(LumKeyEventProc("HOME"), 0);
  EXPECT_EQ(LumKeyEventProc("SVC_NETFLIX"), 0);
  EXPECT_NE(NkKeyEventProc("HOME"), 0) << "not a platform key name";
  EXPECT_EQ(NkActionPictureInspect(), 0);
  EXPECT_EQ(NkGetPictureInspectionRespond(), "Picture inspection passed");
  EXPECT_EQ(NkActionSoundInspect(), 0);
  EXPECT_EQ(NkGetSoundInspectionRespond(), "Sound inspection passed");
  EXPECT_EQ(NkActionOTA(), 0);

  EXPECT_EQ(NkGetReadFilePath("picture.cfg", 0), "") << "not backed up yet";
  EXPECT_EQ(NkBackupReadFile("picture.cfg"), 0);
  const std::string path = NkGetReadFilePath("picture.cfg", 0);
  ASSERT_NE(path, "");
  EXPECT_NE(LumTest::ReadFile(path).find("pictureMode=Game\n"), std::string::npos);
  EXPECT_EQ(NkGetReadFilePath("picture.cfg", 1), "");
  EXPECT_NE(NkBackupReadFile("../picture.cfg"), 0);
  EXPECT_EQ(NkGetReadFilePath("../picture.cfg", 0), "");
  EXPECT_EQ(NkRemoveReadFile("picture.cfg"), 0);
  EXPECT_EQ(NkGetReadFilePath("picture.cfg", 0), "");
  EXPECT_NE(NkRemoveReadFile("picture.cfg"), 0) << "nothing left to remove";

  tv().update([](TvState& s) { s.refuseChanges = true; });
  EXPECT_EQ(LumKeyEventProc("BACK"), LumSim::kRefused);
  EXPECT_EQ(NkActionOTA(), LumSim::kRefused);
  EXPECT_EQ(NkBackupReadFile("tv.cfg"), LumSim::kRefused);

  const TvState s = tv().snapshot();
  EXPECT_EQ(s.keyLog, (std::vector<std::string>{"KEY_HOME", "KEY_NETFLIX"}));
  EXPECT_EQ(s.pictureInspections, 1);
  EXPECT_EQ(s.soundInspections, 1);
  EXPECT_EQ(s.otaStarts, 1);
  EXPECT_EQ(tv().describe(),
            "picture=Game sound=Standard source=TV volume=15 mute=Unmute "
            "keys=KEY_HOME,KEY_NETFLIX");
}

// The television answers for every kind of item while installed; removed,
// the agent's defaults answer again. The video frames stay the agent's.
TEST_F(SimulatedTvTest, UninstallBringsBackTheAgentsDefaults) {
  const auto answers = [] {
    std::string port;
    std::string device;
    std::vector<std::string> sources;
    const int arc = NkArcInspect(port, device);
    NkGetVStrSourceList(sources);
    unsigned char frame[16];
    return std::vector<std::string>{NkGetDeviceSN(),
                                    Text(NkGetWifiSignalStrength()),
                                    Text(NkIsHbbtv()),
                                    Text(NkSetPictureMode("Cinema Night")),
                                    sources.at(1),
                                    Text(arc) + " " + port + " " + device,
                                    Text(NkGetTimeOutFlag()),
                                    Text(NkFillVideoBuffer(frame, sizeof frame))};
  };
  const std::vector<std::string> installed = {"SIMTV0000001",     "72", "1", "1", "TV",
                                              "0 HDMI3 Soundbar", "1",  "-1"};
  EXPECT_EQ(answers(), installed);
  tv().uninstall();
  const std::vector<std::string> defaults = {
      "Test_ID", "50", "0", "0", "HDMI1", "0 N/A No Arc device.", "1", "-1"};
  EXPECT_EQ(answers(), defaults);
}

}  // namespace
