#include "tools/tv/SimulatedTv.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <new>
#include <utility>

#include "lum_platform.h"
#include "tools/tv/simulated_tv.h"

namespace LumSim {

namespace fs = std::filesystem;

namespace {

// Long enough for a support session's presses; a host running for days must
// not grow without bound.
constexpr size_t kKeyLogLimit = 256;
// The describe line shows only the latest presses.
constexpr size_t kDescribedKeys = 5;
constexpr char kReadableDirectory[] = "readable";

Choice Offer(std::string value, std::vector<std::string> options) {
  return Choice{std::move(value), std::move(options)};
}

bool Offers(const Choice& choice, const std::string& value) {
  return std::find(choice.options.begin(), choice.options.end(), value) != choice.options.end();
}

std::vector<std::string> Languages() {
  return {"English", "German", "French", "Italian", "Spanish", "Dutch", "Polish", "Swedish"};
}

std::string Line(const std::string& key, const std::string& value) {
  return key + "=" + value + "\n";
}

// The file a television keeps for `name`, as text; empty for an unknown name.
std::string Render(const TvState& s, const std::string& name) {
  if (name == "tv.cfg") {
    return Line("serial", s.serial) + Line("brand", s.brand) + Line("model", s.model) +
           Line("subModel", s.subModel) + Line("swVersion", s.swVersion) +
           Line("country", s.country) + Line("language", s.language) + Line("region", s.region) +
           Line("source", s.source) + Line("hbbtv", s.hbbtv ? "on" : "off");
  }
  if (name == "picture.cfg") {
    return Line("pictureMode", s.pictureMode.value) +
           Line("colourTemperature", s.colourTemperature.value) +
           Line("adaptiveContrast", s.adaptiveContrast.value) +
           Line("ultraSmoothMotion", s.ultraSmoothMotion.value) +
           Line("noiseReduction", s.noiseReduction.value) +
           Line("colourSaturation", std::to_string(s.colourSaturation)) +
           Line("overscan", s.overscan ? "on" : "off");
  }
  if (name == "sound.cfg") {
    return Line("soundMode", s.soundMode.value) + Line("mute", s.mute.value) +
           Line("headphoneMode", s.headphoneMode.value) + Line("audioOutput", s.audioOutput.value) +
           Line("volume", std::to_string(s.volume)) + Line("lipSync", std::to_string(s.lipSync));
  }
  return std::string();
}

bool IsReadableFile(const std::string& name) {
  const auto& files = SimulatedTv::ReadableFiles();
  return std::find(files.begin(), files.end(), name) != files.end();
}

bool WriteFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  return static_cast<bool>(out);
}

// The factory picture and sound settings, shared by the factory state and
// by RestoreAQPQ/ResetAQPQ, so both always agree.
void FactoryPictureAndSound(TvState& s) {
  s.pictureMode = Offer("Standard", {"Standard", "Vivid", "Cinema", "Sports", "Game"});
  s.colourTemperature = Offer("Standard", {"Standard", "Warm", "Cool"});
  s.adaptiveContrast = Offer("Medium", {"Off", "Low", "Medium", "High"});
  s.ultraSmoothMotion = Offer("Standard", {"Off", "Smooth", "Standard", "Clear", "Film"});
  s.noiseReduction = Offer("Low", {"Off", "Low", "Medium", "High"});
  s.colourSaturation = 50;
  s.overscan = false;
  s.soundMode = Offer("Standard", {"Standard", "Theater", "Music", "Speech", "Late Night"});
  s.mute = Offer("Unmute", {"Mute", "Unmute"});
  s.headphoneMode = Offer("Headphone with Speakers", {"Headphone with Speakers", "Headphone Only"});
  s.audioOutput = Offer("TV Speaker", {"TV Speaker", "ARC", "BT Sound Bar", "SPDIF Only"});
  s.volume = 15;
  s.lipSync = 6;
  s.speakerArcMode = 0;
}

}  // namespace

TvState TvState::Factory() {
  TvState s;
  FactoryPictureAndSound(s);
  s.pictureInspectionRespond = "No inspection run";
  s.soundInspectionRespond = "No inspection run";
  s.subtitle = Offer("English", Languages());
  s.audioLanguage = Offer("English", Languages());
  s.sources = {{"TV", "TV"},
               {"HDMI1", "Game console"},
               {"HDMI2", "Blu-ray"},
               {"HDMI3", "HDMI3"},
               {"AV", "AV"}};
  s.source = "TV";
  s.hdmiPorts = {"HDMI1", "HDMI2", "HDMI3"};
  s.hdmiDevices = {"HDMI1-Game console", "HDMI2-Blu-ray", "HDMI3-Soundbar"};
  s.hdcpInfo = {"HDCP1.4 key", "valid", "HDCP2.2 key", "valid"};
  s.edid = "00ffffffffffff0039e7550001000000";
  s.arcPortName = "HDMI3";
  s.arcDeviceName = "Soundbar";
  s.cecSupport = true;
  s.videoFormat = "1920x1080i 50Hz";
  s.audioFormat = "Dolby Digital Plus";
  s.colourFormat = "YCbCr 4:2:0";
  s.hdrType = "SDR";
  s.signalQuality = "Good";
  s.signalLevel = "78%";
  s.modulation = "DVB-T2 256QAM";
  s.channelFrequency = "578000 kHz";
  s.currentChannel = "7";
  s.networkLinkStatus = 1;
  s.wifiSignalStrength = 72;
  s.wifiFirmware = "7.35.180.11";
  s.btDevices = {"Living room soundbar", "02:1a:7d:da:71:13", "A2DP", "paired"};
  s.btSelfDiagnosis = {"BT Inspection passed.", "BT self diagnosis"};
  s.serial = "SIMTV0000001";
  s.brand = "Norvik";
  s.model = "NV-55-SIM";
  s.subModel = "0001";
  s.swVersion = "V2.4.1";
  s.country = "Germany";
  s.language = "English";
  s.region = "EU";
  s.runningMode = "User Mode";
  s.platformModel = "Mstar6886";
  s.macAddress = "02:00:00:00:00:01";
  s.manufacturedDate = "2024-03-11";
  s.initialPowerOnDate = "2024-05-02";
  s.netflixKey = "NFX-SIM-0001";
  s.ciPlusKey = "CIP-SIM-0001";
  s.hbbtv = true;
  s.enhancedAcrState = 0;
  s.protectUserData = true;
  s.timeOutFlag = 1;
  return s;
}

// The callbacks the agent calls. Each takes the state's lock only for the
// copy or the change itself, and turns any failure (an allocation, say) into
// the item's neutral answer, because nothing may unwind into the agent.
struct Callbacks {
  static SimulatedTv& Tv() { return SimulatedTv::Instance(); }

  template <typename Result, typename Read>
  static Result Get(Read read) {
    try {
      SimulatedTv& tv = Tv();
      std::lock_guard<std::mutex> lock(tv.mutex_);
      return read(tv.state_);
    } catch (...) {
      return Result();
    }
  }

  // Applies `change` unless the television refuses every change; `change`
  // answers kAccepted or kInvalidValue.
  template <typename Change>
  static int Set(Change change) {
    try {
      SimulatedTv& tv = Tv();
      std::lock_guard<std::mutex> lock(tv.mutex_);
      if (tv.state_.refuseChanges) {
        return kRefused;
      }
      return change(tv.state_);
    } catch (...) {
      return kRefused;
    }
  }

  template <std::string TvState::*Field>
  static std::string Text() {
    return Get<std::string>([](const TvState& s) { return s.*Field; });
  }
  template <Choice TvState::*Field>
  static std::string Current() {
    return Get<std::string>([](const TvState& s) { return (s.*Field).value; });
  }
  template <int TvState::*Field>
  static int Number() {
    return Get<int>([](const TvState& s) { return s.*Field; });
  }
  template <bool TvState::*Field>
  static bool Flag() {
    return Get<bool>([](const TvState& s) { return s.*Field; });
  }
  template <std::vector<std::string> TvState::*Field>
  static int List(std::vector<std::string>& entries) {
    try {
      const std::vector<std::string> list =
          Get<std::vector<std::string>>([](const TvState& s) { return s.*Field; });
      entries.insert(entries.end(), list.begin(), list.end());
      return 0;
    } catch (...) {
      return kRefused;
    }
  }
  template <Choice TvState::*Field>
  static int Options(std::vector<std::string>& entries) {
    try {
      const std::vector<std::string> list =
          Get<std::vector<std::string>>([](const TvState& s) { return (s.*Field).options; });
      entries.insert(entries.end(), list.begin(), list.end());
      return 0;
    } catch (...) {
      return kRefused;
    }
  }

  template <Choice TvState::*Field>
  static int Choose(const std::string& value) {
    return Set([&value](TvState& s) {
      Choice& choice = s.*Field;
      if (!Offers(choice, value)) {
        return kInvalidValue;
      }
      choice.value = value;
      return kAccepted;
    });
  }
  template <int TvState::*Field, int Min, int Max>
  static int SetNumber(int value) {
    return Set([value](TvState& s) {
      if (value < Min || value > Max) {
        return kInvalidValue;
      }
      s.*Field = value;
      return kAccepted;
    });
  }

  static int SetSource(const std::string& name) {
    return Set([&name](TvState& s) {
      const bool known = std::any_of(s.sources.begin(), s.sources.end(),
                                     [&name](const Source& source) { return source.name == name; });
      if (!known) {
        return kInvalidValue;
      }
      s.source = name;
      return kAccepted;
    });
  }
  static int SourceList(std::vector<std::string>& entries) {
    try {
      const std::vector<Source> sources =
          Get<std::vector<Source>>([](const TvState& s) { return s.sources; });
      for (const Source& source : sources) {
        entries.push_back(source.name);
        entries.push_back(source.alias);
      }
      return 0;
    } catch (...) {
      return kRefused;
    }
  }
  static int SetOverscan(bool value) {
    return Set([value](TvState& s) {
      s.overscan = value;
      return kAccepted;
    });
  }
  static int EnableHbbtv(int value) {
    return Set([value](TvState& s) {
      if (value != 0 && value != 1) {
        return kInvalidValue;
      }
      s.hbbtv = value == 1;
      return kAccepted;
    });
  }
  // The argument says which of audio and picture the platform restores; the
  // simulation always restores both, which every caller accepts.
  static int RestoreAQPQ(int) {
    return Set([](TvState& s) {
      FactoryPictureAndSound(s);
      ++s.aqpqRestores;
      return kAccepted;
    });
  }
  static int ResetAQPQ(int) {
    return Set([](TvState& s) {
      FactoryPictureAndSound(s);
      ++s.aqpqResets;
      return kAccepted;
    });
  }
  static int FactoryReset() {
    return Set([](TvState& s) {
      TvState fresh = TvState::Factory();
      fresh.keyLog = std::move(s.keyLog);
      fresh.factoryResets = s.factoryResets + 1;
      fresh.otaStarts = s.otaStarts;
      fresh.pictureInspections = s.pictureInspections;
      fresh.soundInspections = s.soundInspections;
      fresh.aqpqRestores = s.aqpqRestores;
      fresh.aqpqResets = s.aqpqResets;
      s = std::move(fresh);
      return kAccepted;
    });
  }
  static int ActionOTA() {
    return Set([](TvState& s) {
      ++s.otaStarts;
      return kAccepted;
    });
  }
  static int ActionPictureInspect() {
    return Set([](TvState& s) {
      ++s.pictureInspections;
      s.pictureInspectionRespond = "Picture inspection passed";
      return kAccepted;
    });
  }
  static int ActionSoundInspect() {
    return Set([](TvState& s) {
      ++s.soundInspections;
      s.soundInspectionRespond = "Sound inspection passed";
      return kAccepted;
    });
  }
  static int KeyEvent(const std::string& keyName) {
    return Set([&keyName](TvState& s) {
      if (keyName.size() <= 4 || keyName.compare(0, 4, "KEY_") != 0) {
        return kInvalidValue;
      }
      if (s.keyLog.size() >= kKeyLogLimit) {
        s.keyLog.erase(s.keyLog.begin());
      }
      s.keyLog.push_back(keyName);
      return kAccepted;
    });
  }
  static int ArcInspect(std::string& portName, std::string& deviceName) {
    try {
      const auto arc = Get<std::pair<std::string, std::string>>(
          [](const TvState& s) { return std::make_pair(s.arcPortName, s.arcDeviceName); });
      portName = arc.first;
      deviceName = arc.second;
      return 0;
    } catch (...) {
      return kRefused;
    }
  }
  static int BackupReadFile(const std::string& name) {
    try {
      return Tv().backupReadFile(name);
    } catch (...) {
      return kRefused;
    }
  }
  static int RemoveReadFile(const std::string& name) {
    try {
      return Tv().removeReadFile(name);
    } catch (...) {
      return kRefused;
    }
  }
  static std::string ReadFilePath(const std::string& name, int index) {
    try {
      return Tv().readFilePath(name, index);
    } catch (...) {
      return std::string();
    }
  }

  // Registers every callback (on) or removes them all (off): one list, so the
  // two can never disagree about what was registered.
  static void Bind(bool on) {
    using namespace Lum::Sv;
    using S = TvState;
    // Text getters.
    RegGetSystemCountry(on ? &Text<&S::country> : nullptr);
    RegGetPlatformModel(on ? &Text<&S::platformModel> : nullptr);
    RegGetSystemLanguage(on ? &Text<&S::language> : nullptr);
    RegGetRunningMode(on ? &Text<&S::runningMode> : nullptr);
    RegGetNetflixKey(on ? &Text<&S::netflixKey> : nullptr);
    RegGetCIPlusKey(on ? &Text<&S::ciPlusKey> : nullptr);
    RegGetEDIDInfo(on ? &Text<&S::edid> : nullptr);
    RegGetTvVideoFormat(on ? &Text<&S::videoFormat> : nullptr);
    RegGetTvAudioFormat(on ? &Text<&S::audioFormat> : nullptr);
    RegGetTvColourFormat(on ? &Text<&S::colourFormat> : nullptr);
    RegGetTvSignalQuality(on ? &Text<&S::signalQuality> : nullptr);
    RegGetTvSignalLevel(on ? &Text<&S::signalLevel> : nullptr);
    RegGetTvHDRType(on ? &Text<&S::hdrType> : nullptr);
    RegGetModulationType(on ? &Text<&S::modulation> : nullptr);
    RegGetChannelFrequency(on ? &Text<&S::channelFrequency> : nullptr);
    RegGetSourceName(on ? &Text<&S::source> : nullptr);
    RegGetAdaptiveContrast(on ? &Current<&S::adaptiveContrast> : nullptr);
    RegGetUltraSmoothMotion(on ? &Current<&S::ultraSmoothMotion> : nullptr);
    RegGetNoiseReduction(on ? &Current<&S::noiseReduction> : nullptr);
    RegGetCurrentChannel(on ? &Text<&S::currentChannel> : nullptr);
    RegGetSubtitle(on ? &Current<&S::subtitle> : nullptr);
    RegGetAudioLanguage(on ? &Current<&S::audioLanguage> : nullptr);
    RegGetWifiFirmware(on ? &Text<&S::wifiFirmware> : nullptr);
    RegGetArcPortName(on ? &Text<&S::arcPortName> : nullptr);
    RegGetMacAddress(on ? &Text<&S::macAddress> : nullptr);
    RegGetManufacturedDate(on ? &Text<&S::manufacturedDate> : nullptr);
    RegGetInitialPowerOnDate(on ? &Text<&S::initialPowerOnDate> : nullptr);
    RegGetDeviceSN(on ? &Text<&S::serial> : nullptr);
    RegGetBrand(on ? &Text<&S::brand> : nullptr);
    RegGetLumModel(on ? &Text<&S::model> : nullptr);
    RegGetLumSubModel(on ? &Text<&S::subModel> : nullptr);
    RegGetSwVersion(on ? &Text<&S::swVersion> : nullptr);
    RegGetPictureMode(on ? &Current<&S::pictureMode> : nullptr);
    RegGetColourTemperature(on ? &Current<&S::colourTemperature> : nullptr);
    RegGetSoundMode(on ? &Current<&S::soundMode> : nullptr);
    RegGetMuteStatus(on ? &Current<&S::mute> : nullptr);
    RegGetHeadphoneMode(on ? &Current<&S::headphoneMode> : nullptr);
    RegGetAudioOutput(on ? &Current<&S::audioOutput> : nullptr);
    RegGetPictureInspectionRespond(on ? &Text<&S::pictureInspectionRespond> : nullptr);
    RegGetSoundInspectionRespond(on ? &Text<&S::soundInspectionRespond> : nullptr);
    RegGetRegion(on ? &Text<&S::region> : nullptr);
    // Numbers, flags and actions.
    RegActionPictureInspect(on ? &ActionPictureInspect : nullptr);
    RegActionSoundInspect(on ? &ActionSoundInspect : nullptr);
    RegActionOTA(on ? &ActionOTA : nullptr);
    RegFactoryReset(on ? &FactoryReset : nullptr);
    RegGetSpeakerArcMode(on ? &Number<&S::speakerArcMode> : nullptr);
    RegGetNetworkLinkStatus(on ? &Number<&S::networkLinkStatus> : nullptr);
    RegGetEnhancedACRState(on ? &Number<&S::enhancedAcrState> : nullptr);
    RegGetColourSaturation(on ? &Number<&S::colourSaturation> : nullptr);
    RegGetVolume(on ? &Number<&S::volume> : nullptr);
    RegGetLipSync(on ? &Number<&S::lipSync> : nullptr);
    RegGetWifiSignalStrength(on ? &Number<&S::wifiSignalStrength> : nullptr);
    RegGetTimeOutFlag(on ? &Number<&S::timeOutFlag> : nullptr);
    RegIsBTHeadphoneExist(on ? &Flag<&S::btHeadphoneConnected> : nullptr);
    RegIsWiredHeadphoneExist(on ? &Flag<&S::wiredHeadphoneConnected> : nullptr);
    RegGetOverscan(on ? &Flag<&S::overscan> : nullptr);
    RegIsHbbtv(on ? &Flag<&S::hbbtv> : nullptr);
    RegIsCECSupport(on ? &Flag<&S::cecSupport> : nullptr);
    RegIsProtectUserData(on ? &Flag<&S::protectUserData> : nullptr);
    // Setters.
    RegSetSource(on ? &SetSource : nullptr);
    RegSetPictureMode(on ? &Choose<&S::pictureMode> : nullptr);
    RegSetColourTemperature(on ? &Choose<&S::colourTemperature> : nullptr);
    RegSetAdaptiveContrast(on ? &Choose<&S::adaptiveContrast> : nullptr);
    RegSetUltraSmoothMotion(on ? &Choose<&S::ultraSmoothMotion> : nullptr);
    RegSetNoiseReduction(on ? &Choose<&S::noiseReduction> : nullptr);
    RegSetMuteStatus(on ? &Choose<&S::mute> : nullptr);
    RegSetSoundMode(on ? &Choose<&S::soundMode> : nullptr);
    RegSetHeadphoneMode(on ? &Choose<&S::headphoneMode> : nullptr);
    RegSetAudioOutput(on ? &Choose<&S::audioOutput> : nullptr);
    RegSetSubtitle(on ? &Choose<&S::subtitle> : nullptr);
    RegSetAudioLanguage(on ? &Choose<&S::audioLanguage> : nullptr);
    RegBackupReadFile(on ? &BackupReadFile : nullptr);
    RegRemoveReadFile(on ? &RemoveReadFile : nullptr);
    RegSetOverscan(on ? &SetOverscan : nullptr);
    RegSetColourSaturation(on ? &SetNumber<&S::colourSaturation, 0, 100> : nullptr);
    RegSetVolume(on ? &SetNumber<&S::volume, 0, 100> : nullptr);
    RegSetLipSync(on ? &SetNumber<&S::lipSync, 0, 20> : nullptr);
    RegEnableHbbtv(on ? &EnableHbbtv : nullptr);
    RegRestoreAQPQ(on ? &RestoreAQPQ : nullptr);
    RegResetAQPQ(on ? &ResetAQPQ : nullptr);
    RegSetEnhancedACRState(on ? &SetNumber<&S::enhancedAcrState, 0, 1> : nullptr);
    // Lists.
    RegGetVStrHDCPInfo(on ? &List<&S::hdcpInfo> : nullptr);
    RegGetVStrHDMIPortNameList(on ? &List<&S::hdmiPorts> : nullptr);
    RegGetVStrHDMIDeviceNameList(on ? &List<&S::hdmiDevices> : nullptr);
    RegGetVStrSourceList(on ? &SourceList : nullptr);
    RegGetVStrPictureModeList(on ? &Options<&S::pictureMode> : nullptr);
    RegGetVStrColourTemperatureModeList(on ? &Options<&S::colourTemperature> : nullptr);
    RegGetVStrAdaptiveContrastList(on ? &Options<&S::adaptiveContrast> : nullptr);
    RegGetVStrNoiseReductionList(on ? &Options<&S::noiseReduction> : nullptr);
    RegGetVStrUltraSmoothMotionList(on ? &Options<&S::ultraSmoothMotion> : nullptr);
    RegGetVStrSoundModeList(on ? &Options<&S::soundMode> : nullptr);
    RegGetVStrHeadphoneModeList(on ? &Options<&S::headphoneMode> : nullptr);
    RegGetVStrAudioOutputList(on ? &Options<&S::audioOutput> : nullptr);
    RegGetVStrSubtitleList(on ? &Options<&S::subtitle> : nullptr);
    RegGetVStrAudioLanguageList(on ? &Options<&S::audioLanguage> : nullptr);
    RegBTSelfDiagnoseInfo(on ? &List<&S::btSelfDiagnosis> : nullptr);
    RegGetVStrBTDeviceList(on ? &List<&S::btDevices> : nullptr);
    // The rest.
    RegArcInspect(on ? &ArcInspect : nullptr);
    RegGetReadFilePath(on ? &ReadFilePath : nullptr);
    RegKeyEventProc(on ? &KeyEvent : nullptr);
  }
};

const std::vector<std::string>& SimulatedTv::ReadableFiles() {
  static const std::vector<std::string> files = {"tv.cfg", "picture.cfg", "sound.cfg"};
  return files;
}

// Never destroyed: agent threads may still call a callback while the process
// exits (a television switched off mid-work), after static destructors ran.
SimulatedTv& SimulatedTv::Instance() {
  static SimulatedTv* const tv = new SimulatedTv();
  return *tv;
}

SimulatedTv::SimulatedTv() : state_(TvState::Factory()) {}

void SimulatedTv::install() {
  Callbacks::Bind(true);
}

void SimulatedTv::uninstall() {
  Callbacks::Bind(false);
}

void SimulatedTv::reset() {
  std::lock_guard<std::mutex> files(filesMutex_);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    state_ = TvState::Factory();
  }
  if (!directory_.empty()) {
    for (const std::string& name : ReadableFiles()) {
      std::error_code ignored;
      fs::remove(readablePath(name), ignored);
    }
  }
}

bool SimulatedTv::setFileDirectory(const std::string& path) {
  std::lock_guard<std::mutex> files(filesMutex_);
  directory_ = path;
  if (path.empty()) {
    return true;
  }
  std::error_code error;
  fs::create_directories(fs::path(path) / kReadableDirectory, error);
  if (error) {
    return false;
  }
  const TvState state = snapshot();
  bool written = true;
  for (const std::string& name : ReadableFiles()) {
    written = WriteFile(configPath(name), Render(state, name)) && written;
  }
  return written;
}

TvState SimulatedTv::snapshot() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return state_;
}

void SimulatedTv::update(const std::function<void(TvState&)>& change) {
  std::lock_guard<std::mutex> lock(mutex_);
  change(state_);
}

std::string SimulatedTv::describe() const {
  const TvState s = snapshot();
  std::string keys;
  const size_t first = s.keyLog.size() > kDescribedKeys ? s.keyLog.size() - kDescribedKeys : 0;
  for (size_t i = first; i < s.keyLog.size(); ++i) {
    keys += (keys.empty() ? "" : ",") + s.keyLog[i];
  }
  return "picture=" + s.pictureMode.value + " sound=" + s.soundMode.value + " source=" + s.source +
         " volume=" + std::to_string(s.volume) + " mute=" + s.mute.value +
         " keys=" + (keys.empty() ? "-" : keys);
}

std::string SimulatedTv::configPath(const std::string& name) const {
  return (fs::path(directory_) / name).string();
}

std::string SimulatedTv::readablePath(const std::string& name) const {
  return (fs::path(directory_) / kReadableDirectory / name).string();
}

// The television refreshes its file from the current settings and copies it
// where the agent may read it, as a real one copies from its private storage.
int SimulatedTv::backupReadFile(const std::string& name) {
  std::lock_guard<std::mutex> files(filesMutex_);
  TvState state;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_.refuseChanges) {
      return kRefused;
    }
    state = state_;
  }
  if (directory_.empty() || !IsReadableFile(name)) {
    return kInvalidValue;
  }
  std::error_code error;
  if (!WriteFile(configPath(name), Render(state, name)) ||
      !fs::copy_file(configPath(name), readablePath(name), fs::copy_options::overwrite_existing,
                     error)) {
    return kRefused;
  }
  return kAccepted;
}

int SimulatedTv::removeReadFile(const std::string& name) {
  std::lock_guard<std::mutex> files(filesMutex_);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state_.refuseChanges) {
      return kRefused;
    }
  }
  if (directory_.empty() || !IsReadableFile(name)) {
    return kInvalidValue;
  }
  std::error_code error;
  return fs::remove(readablePath(name), error) ? kAccepted : kInvalidValue;
}

// Only index 0 exists: each file is handed out as one piece.
std::string SimulatedTv::readFilePath(const std::string& name, int index) const {
  std::lock_guard<std::mutex> files(filesMutex_);
  if (directory_.empty() || index != 0 || !IsReadableFile(name)) {
    return std::string();
  }
  const std::string path = readablePath(name);
  std::error_code error;
  return fs::is_regular_file(path, error) ? path : std::string();
}

}  // namespace LumSim

extern "C" {

int lum_sim_tv_install(const char* fileDirectory) {
  try {
    LumSim::SimulatedTv& tv = LumSim::SimulatedTv::Instance();
    const bool prepared = tv.setFileDirectory(fileDirectory != nullptr ? fileDirectory : "");
    tv.install();
    return prepared ? 0 : -1;
  } catch (...) {
    return -1;
  }
}

void lum_sim_tv_uninstall(void) {
  LumSim::SimulatedTv::Instance().uninstall();
}

int lum_sim_tv_describe(char* buffer, size_t size) {
  try {
    const std::string text = LumSim::SimulatedTv::Instance().describe();
    if (buffer != nullptr && size > 0) {
      const size_t length = std::min(text.size(), size - 1);
      text.copy(buffer, length);
      buffer[length] = '\0';
    }
    return static_cast<int>(text.size());
  } catch (...) {
    if (buffer != nullptr && size > 0) {
      buffer[0] = '\0';
    }
    return -1;
  }
}

}  // extern "C"
