#pragma once

// A television in miniature for the agent's platform callbacks: the host
// program registers it so that support commands act on settings that really
// change, and tests use it to see what a command did to the television.
//
// Every setting is coherent: a setting with a list of choices always holds
// one of them, numbers stay within their range, and whatever a setter accepts
// is what the getter answers afterwards. Like a real television it refuses
// values it does not offer, leaving the setting as it was.
//
// The callbacks are plain function pointers, so there is one television per
// process (Instance()). It is safe to call from any thread; no callback waits
// for anything but the state's own short lock, and none throws.

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace LumSim {

// What a setter or action answers.
constexpr int kAccepted = 0;
// The value is not among the television's choices or outside its range.
constexpr int kInvalidValue = 1;
// The television refuses every change (TvState::refuseChanges).
constexpr int kRefused = 7;

// A setting the television offers as a list of choices.
struct Choice {
  std::string value;
  std::vector<std::string> options;
};

struct Source {
  std::string name;   // "HDMI1"
  std::string alias;  // what the user called it: "Game console"
};

struct TvState {
  // Picture.
  Choice pictureMode;
  Choice colourTemperature;
  Choice adaptiveContrast;
  Choice ultraSmoothMotion;
  Choice noiseReduction;
  int colourSaturation = 0;  // 0..100
  bool overscan = false;
  std::string pictureInspectionRespond;

  // Sound.
  Choice soundMode;
  Choice mute;  // "Mute" or "Unmute"
  Choice headphoneMode;
  Choice audioOutput;
  int volume = 0;          // 0..100
  int lipSync = 0;         // 0..20
  int speakerArcMode = 0;  // 0 or 1
  bool btHeadphoneConnected = false;
  bool wiredHeadphoneConnected = false;
  std::string soundInspectionRespond;

  // Languages.
  Choice subtitle;
  Choice audioLanguage;

  // Inputs.
  std::vector<Source> sources;
  std::string source;  // one of sources[].name
  std::vector<std::string> hdmiPorts;
  std::vector<std::string> hdmiDevices;
  std::vector<std::string> hdcpInfo;  // alternating key and value
  std::string edid;
  std::string arcPortName;
  std::string arcDeviceName;
  bool cecSupport = false;

  // The tuner's signal.
  std::string videoFormat;
  std::string audioFormat;
  std::string colourFormat;
  std::string hdrType;
  std::string signalQuality;
  std::string signalLevel;
  std::string modulation;
  std::string channelFrequency;
  std::string currentChannel;

  // Network and Bluetooth.
  int networkLinkStatus = 0;   // 1: linked
  int wifiSignalStrength = 0;  // percent
  std::string wifiFirmware;
  std::vector<std::string> btDevices;  // name, address, profile, state per device
  std::vector<std::string> btSelfDiagnosis;

  // Device facts.
  std::string serial;
  std::string brand;
  std::string model;
  std::string subModel;
  std::string swVersion;
  std::string country;
  std::string language;
  std::string region;
  std::string runningMode;
  std::string platformModel;
  std::string macAddress;
  std::string manufacturedDate;
  std::string initialPowerOnDate;
  std::string netflixKey;
  std::string ciPlusKey;

  // Features.
  bool hbbtv = false;
  int enhancedAcrState = 0;  // 0 or 1
  bool protectUserData = false;
  // Non-zero: no session prompt is waiting on screen, so a new support
  // request may replace a session nobody joined.
  int timeOutFlag = 0;

  // What the television was asked to do. Kept across factory resets: they
  // are the test's record, not the television's settings.
  std::vector<std::string> keyLog;  // platform key names, oldest first
  int factoryResets = 0;
  int otaStarts = 0;
  int pictureInspections = 0;
  int soundInspections = 0;
  int aqpqRestores = 0;
  int aqpqResets = 0;

  // Makes every setter and action answer kRefused without changing anything.
  bool refuseChanges = false;

  // The settings of a television fresh from the factory.
  static TvState Factory();
};

class SimulatedTv {
 public:
  // The readable configuration files the television can hand out.
  static const std::vector<std::string>& ReadableFiles();

  static SimulatedTv& Instance();

  // Registers a callback for every platform item except the video frames,
  // the original identity and the password (the agent's own answers serve
  // there). uninstall() removes them again, bringing back the agent's
  // defaults.
  void install();
  void uninstall();
  // Back to the factory state, with empty records; removes readable copies.
  void reset();

  // Where the configuration files live ("" for none: then no file can be
  // backed up). Creates the directory and writes the files; false when that
  // fails.
  bool setFileDirectory(const std::string& path);

  TvState snapshot() const;
  void update(const std::function<void(TvState&)>& change);
  // One line for people: "picture=Cinema sound=Standard source=TV volume=15
  // mute=Unmute keys=KEY_HOME".
  std::string describe() const;

 private:
  friend struct Callbacks;
  SimulatedTv();

  std::string configPath(const std::string& name) const;
  std::string readablePath(const std::string& name) const;
  int backupReadFile(const std::string& name);
  int removeReadFile(const std::string& name);
  std::string readFilePath(const std::string& name, int index) const;

  mutable std::mutex mutex_;
  TvState state_;
  std::string directory_;
  // Serialises the file operations, taken before mutex_ when both are held,
  // so that the state's lock is never held while writing files.
  mutable std::mutex filesMutex_;
};

}  // namespace LumSim
