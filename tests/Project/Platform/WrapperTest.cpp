// Every wrapper answers with its test value until the platform registers a
// callback, then passes arguments and results through, and falls back again
// once the callback is removed.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "Project/NorvikInterfaces.h"
#include "support/PlatformRegistration.h"

namespace {

using namespace Lum::Sv;
using LumTest::Registration;

// What the test callbacks answer and what they last received. The wrappers
// run on the test thread here, so plain globals suffice.
std::string g_textAnswer;
int g_intAnswer = 0;
int g_calls = 0;
std::string g_receivedText;
int g_receivedInt = 0;

std::string AnswerText() {
  ++g_calls;
  return g_textAnswer;
}
int AnswerInt() {
  ++g_calls;
  return g_intAnswer;
}
bool AnswerTrue() {
  return true;
}
bool AnswerFalse() {
  return false;
}
int ReceiveText(const std::string& value) {
  ++g_calls;
  g_receivedText = value;
  return g_intAnswer;
}
int ReceiveInt(int value) {
  ++g_calls;
  g_receivedInt = value;
  return g_intAnswer;
}
int AppendPlatformEntry(std::vector<std::string>& entries) {
  ++g_calls;
  entries.push_back("from the platform");
  return g_intAnswer;
}

struct TextGetterCase {
  const char* name;
  void (*reg)(StringGetter);
  std::string (*call)();
  const char* fallback;
};

#define TEXT_GETTER(X, fallback) \
  { #X, Reg##X, Nk##X, fallback }
const TextGetterCase kTextGetters[] = {
    TEXT_GETTER(GetSystemCountry, "Test Country"),
    TEXT_GETTER(GetPlatformModel, "Mstar6886"),
    TEXT_GETTER(GetSystemLanguage, "Test Language"),
    TEXT_GETTER(GetRunningMode, "User Mode"),
    TEXT_GETTER(GetNetflixKey, "Netflix Key Value"),
    TEXT_GETTER(GetCIPlusKey, "CI+ Key Value"),
    TEXT_GETTER(GetEDIDInfo, "EDID Info Value"),
    TEXT_GETTER(GetTvVideoFormat, "Video Format"),
    TEXT_GETTER(GetTvAudioFormat, "Audio Format"),
    TEXT_GETTER(GetTvColourFormat, "Colour Format"),
    TEXT_GETTER(GetTvSignalQuality, "Signal Quality"),
    TEXT_GETTER(GetTvSignalLevel, "Signal Level"),
    TEXT_GETTER(GetTvHDRType, "HDR Type"),
    TEXT_GETTER(GetModulationType, ""),
    TEXT_GETTER(GetChannelFrequency, ""),
    TEXT_GETTER(GetSourceName, ""),
    TEXT_GETTER(GetAdaptiveContrast, ""),
    TEXT_GETTER(GetUltraSmoothMotion, ""),
    TEXT_GETTER(GetNoiseReduction, ""),
    TEXT_GETTER(GetCurrentChannel, ""),
    TEXT_GETTER(GetSubtitle, ""),
    TEXT_GETTER(GetAudioLanguage, ""),
    TEXT_GETTER(GetWifiFirmware, ""),
    TEXT_GETTER(GetArcPortName, "HDMI1"),
    TEXT_GETTER(GetMacAddress, "unknown"),
    TEXT_GETTER(GetManufacturedDate, "unknown"),
    TEXT_GETTER(GetInitialPowerOnDate, "unknown"),
    TEXT_GETTER(GetDeviceSN, "Test_ID"),
    TEXT_GETTER(GetBrand, "Norvik"),
    TEXT_GETTER(GetLumModel, "Norvik_Test_Model"),
    TEXT_GETTER(GetLumSubModel, "0002"),
    TEXT_GETTER(GetSwVersion, "Norvik_Softversion"),
    TEXT_GETTER(GetPictureMode, "Standard"),
    TEXT_GETTER(GetColourTemperature, "Standard"),
    TEXT_GETTER(GetSoundMode, "Stardard"),
    TEXT_GETTER(GetMuteStatus, "Mute"),
    TEXT_GETTER(GetHeadphoneMode, "Headphone with Speakers"),
    TEXT_GETTER(GetAudioOutput, "TV Speaker"),
    TEXT_GETTER(GetPictureInspectionRespond, "No Respones"),
    TEXT_GETTER(GetSoundInspectionRespond, "No Respones"),
    TEXT_GETTER(GetRegion, "EU"),
};

struct NumberGetterCase {
  const char* name;
  void (*reg)(IntGetter);
  int (*call)();
  int fallback;
};

#define INT_GETTER(X, fallback) \
  { #X, Reg##X, Nk##X, fallback }
const NumberGetterCase kIntGetters[] = {
    INT_GETTER(ActionPictureInspect, 0),
    INT_GETTER(ActionSoundInspect, 0),
    INT_GETTER(ActionOTA, 0),
    INT_GETTER(FactoryReset, 0),
    INT_GETTER(GetSpeakerArcMode, 0),
    INT_GETTER(GetNetworkLinkStatus, 0),
    INT_GETTER(GetEnhancedACRState, 0),
    INT_GETTER(GetColourSaturation, 50),
    INT_GETTER(GetVolume, 15),
    INT_GETTER(GetLipSync, 6),
    INT_GETTER(GetWifiSignalStrength, 50),
    INT_GETTER(GetTimeOutFlag, 1),
};

struct FlagGetterCase {
  const char* name;
  void (*reg)(BoolGetter);
  bool (*call)();
  bool fallback;
};

#define BOOL_GETTER(X, fallback) \
  { #X, Reg##X, Nk##X, fallback }
const FlagGetterCase kBoolGetters[] = {
    BOOL_GETTER(IsBTHeadphoneExist, false), BOOL_GETTER(IsWiredHeadphoneExist, false),
    BOOL_GETTER(GetOverscan, false),        BOOL_GETTER(IsHbbtv, false),
    BOOL_GETTER(IsCECSupport, true),        BOOL_GETTER(IsProtectUserData, true),
};

struct TextSetterCase {
  const char* name;
  void (*reg)(StringSetter);
  int (*call)(const std::string&);
};

#define TEXT_SETTER(X) \
  { #X, Reg##X, Nk##X }
const TextSetterCase kTextSetters[] = {
    TEXT_SETTER(SetSource),
    TEXT_SETTER(SetPictureMode),
    TEXT_SETTER(SetColourTemperature),
    TEXT_SETTER(SetAdaptiveContrast),
    TEXT_SETTER(SetUltraSmoothMotion),
    TEXT_SETTER(SetNoiseReduction),
    TEXT_SETTER(SetMuteStatus),
    TEXT_SETTER(SetSoundMode),
    TEXT_SETTER(SetHeadphoneMode),
    TEXT_SETTER(SetAudioOutput),
    TEXT_SETTER(SetSubtitle),
    TEXT_SETTER(SetAudioLanguage),
    TEXT_SETTER(BackupReadFile),
    TEXT_SETTER(RemoveReadFile),
};

struct NumberSetterCase {
  const char* name;
  void (*reg)(IntSetter);
  int (*call)(int);
};

#define INT_SETTER(X) \
  { #X, Reg##X, Nk##X }
const NumberSetterCase kIntSetters[] = {
    INT_SETTER(SetColourSaturation), INT_SETTER(SetVolume),   INT_SETTER(SetLipSync),
    INT_SETTER(EnableHbbtv),         INT_SETTER(RestoreAQPQ), INT_SETTER(ResetAQPQ),
    INT_SETTER(SetEnhancedACRState),
};

const std::vector<std::string> kLanguages = {"English",    "German",     "French",   "Italian",
                                             "Spanish",    "Portuguese", "Dutch",    "Greek",
                                             "Russian",    "Czech",      "Slovak",   "Slovenian",
                                             "Lithuanian", "Latvian",    "Estonian", "Ukrainian"};

struct ListGetterCase {
  const char* name;
  void (*reg)(ListGetter);
  int (*call)(std::vector<std::string>&);
  std::vector<std::string> fallback;
};

#define LIST_GETTER(X, ...) \
  { #X, Reg##X, Nk##X, __VA_ARGS__ }
const ListGetterCase kListGetters[] = {
    LIST_GETTER(GetVStrHDCPInfo, {"HDCP1.4 key", "HDCP1.4 value", "HDCP2.2 key", "HDCP2.2 value"}),
    LIST_GETTER(GetVStrHDMIPortNameList, {"HDMI1", "HDMI2"}),
    LIST_GETTER(GetVStrHDMIDeviceNameList, {"HDMI1-BD", "HDMI1-BSP", "HDMI1-AMP", "HDMI4-BD"}),
    LIST_GETTER(GetVStrSourceList,
                {"TV_ALIAS_NAME", "HDMI1", "HDMI1_ALIAS_NAME", "HDMI2", "HDMI2_ALIAS_NAME", "HDMI3",
                 "HDMI3_ALIAS_NAME", "HDMI4", "HDMI4_ALIAS_NAME"}),
    LIST_GETTER(GetVStrPictureModeList,
                {"Standard", "Cinema Day", "Cinema Night", "Dynamic Sports"}),
    LIST_GETTER(GetVStrColourTemperatureModeList, {"Standard", "Warm", "Cool"}),
    LIST_GETTER(GetVStrAdaptiveContrastList, {"Off", "Low", "Medium", "High"}),
    LIST_GETTER(GetVStrNoiseReductionList, {"Off", "Low", "Medium", "High"}),
    LIST_GETTER(GetVStrUltraSmoothMotionList,
                {"Off", "Smooth", "Standard", "Clear", "Film", "Custom"}),
    LIST_GETTER(GetVStrSoundModeList,
                {"Stardard", "Theater", "Music", "Speech", "Late Night", "Sports"}),
    LIST_GETTER(GetVStrHeadphoneModeList, {"Headphone with Speakers", "Headphone Only"}),
    LIST_GETTER(GetVStrAudioOutputList, {"BT Sound Bar", "ARC", "TV Speaker", "SPDIF Only"}),
    LIST_GETTER(GetVStrSubtitleList, kLanguages),
    LIST_GETTER(GetVStrAudioLanguageList, kLanguages),
    // Only the shape of this one is fixed; checked below.
    LIST_GETTER(BTSelfDiagnoseInfo, {}),
    LIST_GETTER(GetVStrBTDeviceList, {"Name_test", "Addr_test", "Profile_test", "Attr_test"}),
};

// A wrapper that reached another item's slot would break these: each check
// runs while exactly one callback of the family is registered.
void ExpectOtherTextGettersUnchanged(const TextGetterCase& registered) {
  for (const TextGetterCase& other : kTextGetters) {
    if (&other != &registered) {
      EXPECT_EQ(other.call(), other.fallback) << other.name << " while " << registered.name;
    }
  }
}

TEST(PlatformWrappers, TextGettersAnswerDefaultsThenPassThrough) {
  for (const TextGetterCase& item : kTextGetters) {
    SCOPED_TRACE(item.name);
    EXPECT_EQ(item.call(), item.fallback);
    {
      Registration<StringGetter> registration(item.reg, AnswerText);
      g_textAnswer = std::string(item.name) + " from the platform";
      g_calls = 0;
      EXPECT_EQ(item.call(), g_textAnswer);
      EXPECT_EQ(g_calls, 1);
      ExpectOtherTextGettersUnchanged(item);
      EXPECT_EQ(g_calls, 1);
      g_textAnswer.clear();
      EXPECT_EQ(item.call(), "") << "an empty answer is passed on, not replaced";
    }
    EXPECT_EQ(item.call(), item.fallback) << "a null registration restores the default";
  }
}

TEST(PlatformWrappers, NumberGettersAnswerDefaultsThenPassThrough) {
  for (const NumberGetterCase& item : kIntGetters) {
    SCOPED_TRACE(item.name);
    EXPECT_EQ(item.call(), item.fallback);
    {
      Registration<IntGetter> registration(item.reg, AnswerInt);
      for (int answer : {-7, 0, 12345}) {
        g_intAnswer = answer;
        EXPECT_EQ(item.call(), answer);
      }
      g_intAnswer = 777;
      for (const NumberGetterCase& other : kIntGetters) {
        if (&other != &item) {
          EXPECT_EQ(other.call(), other.fallback) << other.name;
        }
      }
    }
    EXPECT_EQ(item.call(), item.fallback);
  }
}

TEST(PlatformWrappers, FlagGettersAnswerDefaultsThenPassThrough) {
  for (const FlagGetterCase& item : kBoolGetters) {
    SCOPED_TRACE(item.name);
    EXPECT_EQ(item.call(), item.fallback);
    {
      Registration<BoolGetter> registration(item.reg, item.fallback ? AnswerFalse : AnswerTrue);
      EXPECT_EQ(item.call(), !item.fallback);
      for (const FlagGetterCase& other : kBoolGetters) {
        if (&other != &item) {
          EXPECT_EQ(other.call(), other.fallback) << other.name;
        }
      }
    }
    EXPECT_EQ(item.call(), item.fallback);
  }
}

TEST(PlatformWrappers, TextSettersSucceedWithoutPlatformAndPassValuesThrough) {
  for (const TextSetterCase& item : kTextSetters) {
    SCOPED_TRACE(item.name);
    g_calls = 0;
    EXPECT_EQ(item.call("ignored"), 0);
    {
      Registration<StringSetter> registration(item.reg, ReceiveText);
      g_intAnswer = -3;
      const std::string value = std::string(item.name) + " value \xC3\xA9";
      EXPECT_EQ(item.call(value), -3);
      EXPECT_EQ(g_receivedText, value);
      EXPECT_EQ(g_calls, 1);
      for (const TextSetterCase& other : kTextSetters) {
        if (&other != &item) {
          EXPECT_EQ(other.call("other"), 0) << other.name;
        }
      }
      EXPECT_EQ(g_calls, 1) << "another setter reached this callback";
    }
    EXPECT_EQ(item.call("again"), 0);
    EXPECT_EQ(g_calls, 1);
  }
}

TEST(PlatformWrappers, NumberSettersSucceedWithoutPlatformAndPassValuesThrough) {
  for (const NumberSetterCase& item : kIntSetters) {
    SCOPED_TRACE(item.name);
    g_calls = 0;
    EXPECT_EQ(item.call(5), 0);
    {
      Registration<IntSetter> registration(item.reg, ReceiveInt);
      g_intAnswer = 9;
      EXPECT_EQ(item.call(-42), 9);
      EXPECT_EQ(g_receivedInt, -42);
      for (const NumberSetterCase& other : kIntSetters) {
        if (&other != &item) {
          EXPECT_EQ(other.call(1), 0) << other.name;
        }
      }
      EXPECT_EQ(g_calls, 1);
    }
    EXPECT_EQ(item.call(5), 0);
    EXPECT_EQ(g_calls, 1);
  }
}

int g_receivedFlag = -1;
int ReceiveFlag(bool value) {
  g_receivedFlag = value ? 1 : 0;
  return 4;
}

TEST(PlatformWrappers, OverscanSetterPassesTheFlagThrough) {
  EXPECT_EQ(NkSetOverscan(true), 0);
  {
    Registration<BoolSetter> registration(RegSetOverscan, ReceiveFlag);
    EXPECT_EQ(NkSetOverscan(true), 4);
    EXPECT_EQ(g_receivedFlag, 1);
    EXPECT_EQ(NkSetOverscan(false), 4);
    EXPECT_EQ(g_receivedFlag, 0);
  }
  EXPECT_EQ(NkSetOverscan(true), 0);
  EXPECT_EQ(g_receivedFlag, 0);
}

TEST(PlatformWrappers, ListGettersAppendDefaultsThenPassTheCallersListThrough) {
  for (const ListGetterCase& item : kListGetters) {
    SCOPED_TRACE(item.name);
    std::vector<std::string> entries = {"already there"};
    EXPECT_EQ(item.call(entries), 0);
    ASSERT_FALSE(entries.empty());
    EXPECT_EQ(entries.front(), "already there") << "defaults are appended, nothing is cleared";
    const std::vector<std::string> defaults(entries.begin() + 1, entries.end());
    if (item.fallback.empty()) {
      ASSERT_EQ(defaults.size(), 2u);
      EXPECT_EQ(defaults[0].rfind("BT Inspection failed. Because ......", 0), 0u) << defaults[0];
      EXPECT_FALSE(defaults[1].empty());
    } else {
      EXPECT_EQ(defaults, item.fallback);
    }
    {
      Registration<ListGetter> registration(item.reg, AppendPlatformEntry);
      g_intAnswer = 3;
      std::vector<std::string> platformEntries = {"already there"};
      EXPECT_EQ(item.call(platformEntries), 3);
      EXPECT_EQ(platformEntries, (std::vector<std::string>{"already there", "from the platform"}));
    }
    std::vector<std::string> again;
    EXPECT_EQ(item.call(again), 0);
    EXPECT_EQ(again, defaults);
  }
}

int FillArc(std::string& port, std::string& device) {
  port += "+HDMI2";
  device += "+Soundbar";
  return 11;
}

TEST(PlatformWrappers, ArcInspectFillsBothTexts) {
  std::string port = "old";
  std::string device = "old";
  EXPECT_EQ(NkArcInspect(port, device), 0);
  EXPECT_EQ(port, "N/A");
  EXPECT_EQ(device, "No Arc device.");

  Registration<ArcInspectCallback> registration(RegArcInspect, FillArc);
  port = "in";
  device = "in";
  EXPECT_EQ(NkArcInspect(port, device), 11);
  EXPECT_EQ(port, "in+HDMI2");
  EXPECT_EQ(device, "in+Soundbar");
}

std::string ReadFilePath(const std::string& fileName, int index) {
  return "/data/" + fileName + "." + std::to_string(index);
}

TEST(PlatformWrappers, ReadFilePathPassesNameAndIndex) {
  EXPECT_EQ(NkGetReadFilePath("log", 2), "");
  Registration<ReadFilePathCallback> registration(RegGetReadFilePath, ReadFilePath);
  EXPECT_EQ(NkGetReadFilePath("log", 2), "/data/log.2");
}

unsigned char* g_frameBuffer = nullptr;
unsigned int g_frameSize = 0;
int CaptureFrame(unsigned char* buffer, unsigned int size) {
  g_frameBuffer = buffer;
  g_frameSize = size;
  buffer[0] = 0xAB;
  return static_cast<int>(size) - 1;
}

TEST(PlatformWrappers, FillVideoBufferReportsNoFrameWithoutPlatform) {
  std::vector<unsigned char> frame(64, 0);
  EXPECT_EQ(NkFillVideoBuffer(frame.data(), 64), -1);
  EXPECT_EQ(frame[0], 0) << "no frame means the buffer is left alone";

  Registration<FillVideoBufferCallback> registration(RegFillVideoBuffer, CaptureFrame);
  EXPECT_EQ(NkFillVideoBuffer(frame.data(), 64), 63);
  EXPECT_EQ(g_frameBuffer, frame.data());
  EXPECT_EQ(g_frameSize, 64u);
  EXPECT_EQ(frame[0], 0xAB);
}

char* CopyOriginalIdentity(char* buffer) {
  buffer[0] = '{';
  buffer[1] = '}';
  buffer[2] = '\0';
  return buffer;
}

TEST(PlatformWrappers, OriginalIdentityIsNullWithoutPlatform) {
  char buffer[8] = "unset";
  EXPECT_EQ(NkGetOrigLumIdJsonIdentity(buffer), nullptr);
  EXPECT_STREQ(buffer, "unset");

  Registration<OrigIdentityCallback> registration(RegGetOrigLumIdJsonIdentity,
                                                  CopyOriginalIdentity);
  EXPECT_EQ(NkGetOrigLumIdJsonIdentity(buffer), buffer);
  EXPECT_STREQ(buffer, "{}");
}

int ThrowStd() {
  throw std::runtime_error("platform failure");
}
std::string ThrowOther() {
  throw 42;
}
int ThrowWhileFilling(std::vector<std::string>&) {
  throw std::logic_error("broken list");
}

TEST(PlatformWrappers, ThrowingCallbacksAreAnsweredWithTheDefault) {
  {
    Registration<IntGetter> registration(RegGetVolume, ThrowStd);
    EXPECT_EQ(NkGetVolume(), 15);
  }
  {
    Registration<StringGetter> registration(RegGetBrand, ThrowOther);
    EXPECT_EQ(NkGetBrand(), "Norvik");
  }
  {
    Registration<ListGetter> registration(RegGetVStrHDMIPortNameList, ThrowWhileFilling);
    std::vector<std::string> entries;
    EXPECT_EQ(NkGetVStrHDMIPortNameList(entries), 0);
    EXPECT_EQ(entries, (std::vector<std::string>{"HDMI1", "HDMI2"}));
  }
}

}  // namespace
