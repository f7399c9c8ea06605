#include "Project/NorvikInterfaces.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <exception>
#include <fstream>
#include <mutex>
#include <sstream>
#include <utility>

#include "Platform/FilterProperties.h"
#include "Platform/JsonUtil.h"
#include "Platform/Logger.h"
#include "Platform/LumJson.h"
#include "Platform/Sha256Util.h"

LUM_SOURCE_FILE("Project/NorvikInterfaces");

namespace Lum {
namespace Sv {

using Core::FilterProperties;

namespace {

constexpr int kService = FilterProperties::SERVICE_SV;
constexpr int kState = FilterProperties::CATEGORY_STATE;

// Reported as the model when the platform registers none; also what a
// development build shows in the back end's device list.
constexpr char kTestModel[] = "Norvik_Test_Model";

// Mixed into the fallback password so that it differs from any other digest
// of the same device facts.
constexpr char kPasswordContext[] = "lum-support-password\n";
// 32 hexadecimal digits: 128 bits of the digest.
constexpr size_t kPasswordLength = 32;

template <typename Fn>
void Register(std::atomic<Fn>& slot, Fn callback, const char* name) {
  slot.store(callback, std::memory_order_release);
  LUM_LOG(kService, kState, FilterProperties::SEVERITY_DEBUG, "Platform callback %s %s", name,
          callback != nullptr ? "registered" : "removed");
}

// Calls the registered callback, or `fallback` when there is none. A callback
// that throws is treated as absent for this call: an exception must not
// unwind through the agent's threads into the host's process.
template <typename Fn, typename Fallback, typename... Args>
auto CallOr(const std::atomic<Fn>& slot, const char* name, Fallback fallback, Args&&... args)
    -> decltype(fallback()) {
  const Fn callback = slot.load(std::memory_order_acquire);
  if (callback == nullptr) {
    return fallback();
  }
  try {
    return callback(std::forward<Args>(args)...);
  } catch (const std::exception& e) {
    LUM_LOG(kService, kState, FilterProperties::SEVERITY_ERROR, "Platform callback %s threw: %s",
            name, e.what());
  } catch (...) {
    LUM_LOG(kService, kState, FilterProperties::SEVERITY_ERROR, "Platform callback %s threw", name);
  }
  return fallback();
}

void Append(std::vector<std::string>& entries, std::initializer_list<const char*> defaults) {
  entries.insert(entries.end(), defaults.begin(), defaults.end());
}

}  // namespace

// One slot, one registration function and one wrapper per callback. The
// tables keep the three in step and put every test value in one place.

#define LUM_TEXT_GETTERS(X)                                         \
  X(GetSystemCountry, "Test Country")                               \
  X(GetPlatformModel, "Mstar6886")                                  \
  X(GetSystemLanguage, "Test Language")                             \
  X(GetRunningMode, "User Mode")                                    \
  X(GetNetflixKey, "Netflix Key Value")                             \
  X(GetCIPlusKey, "CI+ Key Value")                                  \
  X(GetEDIDInfo, "EDID Info Value")                                 \
  X(GetTvVideoFormat, "Video Format")                               \
  X(GetTvAudioFormat, "Audio Format")                               \
  X(GetTvColourFormat, "Colour Format")                             \
  X(GetTvSignalQuality, "Signal Quality")                           \
  X(GetTvSignalLevel, "Signal Level")                               \
  X(GetTvHDRType, "HDR Type")                                       \
  X(GetModulationType, "")                                          \
  X(GetChannelFrequency, "")                                        \
  X(GetSourceName, "")                                              \
  X(GetAdaptiveContrast, "")                                        \
  X(GetUltraSmoothMotion, "")                                       \
  X(GetNoiseReduction, "")                                          \
  X(GetCurrentChannel, "")                                          \
  X(GetSubtitle, "")                                                \
  X(GetAudioLanguage, "")                                           \
  X(GetWifiFirmware, "")                                            \
  X(GetArcPortName, "HDMI1")                                        \
  X(GetMacAddress, "unknown")                                       \
  X(GetManufacturedDate, "unknown")                                 \
  X(GetInitialPowerOnDate, "unknown")                               \
  X(GetDeviceSN, "Test_ID")                                         \
  X(GetBrand, "Norvik")                                             \
  X(GetLumModel, kTestModel)                                        \
  X(GetLumSubModel, "0002")                                         \
  X(GetSwVersion, "Norvik_Softversion")                             \
  X(GetPictureMode, "Standard")                                     \
  X(GetColourTemperature, "Standard")                               \
  X(GetSoundMode, "Stardard") /* sic: the platform's own value */   \
  X(GetMuteStatus, "Mute")                                          \
  X(GetHeadphoneMode, "Headphone with Speakers")                    \
  X(GetAudioOutput, "TV Speaker")                                   \
  X(GetPictureInspectionRespond, "No Respones") /* sic, as above */ \
  X(GetSoundInspectionRespond, "No Respones")                       \
  X(GetRegion, "EU")

#define LUM_INT_GETTERS(X)   \
  X(ActionPictureInspect, 0) \
  X(ActionSoundInspect, 0)   \
  X(ActionOTA, 0)            \
  X(FactoryReset, 0)         \
  X(GetSpeakerArcMode, 0)    \
  X(GetNetworkLinkStatus, 0) \
  X(GetEnhancedACRState, 0)  \
  X(GetColourSaturation, 50) \
  X(GetVolume, 15)           \
  X(GetLipSync, 6)           \
  X(GetWifiSignalStrength, 50)

#define LUM_BOOL_GETTERS(X)       \
  X(IsBTHeadphoneExist, false)    \
  X(IsWiredHeadphoneExist, false) \
  X(GetOverscan, false)           \
  X(IsHbbtv, false)               \
  X(IsCECSupport, true)           \
  X(IsProtectUserData, true)

#define LUM_TEXT_SETTERS(X) \
  X(SetSource)              \
  X(SetPictureMode)         \
  X(SetColourTemperature)   \
  X(SetAdaptiveContrast)    \
  X(SetUltraSmoothMotion)   \
  X(SetNoiseReduction)      \
  X(SetMuteStatus)          \
  X(SetSoundMode)           \
  X(SetHeadphoneMode)       \
  X(SetAudioOutput)         \
  X(SetSubtitle)            \
  X(SetAudioLanguage)       \
  X(BackupReadFile)         \
  X(RemoveReadFile)

#define LUM_INT_SETTERS(X) \
  X(SetColourSaturation)   \
  X(SetVolume)             \
  X(SetLipSync)            \
  X(EnableHbbtv)           \
  X(RestoreAQPQ)           \
  X(ResetAQPQ)             \
  X(SetEnhancedACRState)

#define LUM_LANGUAGES                                                                             \
  "English", "German", "French", "Italian", "Spanish", "Portuguese", "Dutch", "Greek", "Russian", \
      "Czech", "Slovak", "Slovenian", "Lithuanian", "Latvian", "Estonian", "Ukrainian"

#define LUM_LIST_GETTERS(X)                                                                       \
  X(GetVStrHDCPInfo, "HDCP1.4 key", "HDCP1.4 value", "HDCP2.2 key", "HDCP2.2 value")              \
  X(GetVStrHDMIPortNameList, "HDMI1", "HDMI2")                                                    \
  X(GetVStrHDMIDeviceNameList, "HDMI1-BD", "HDMI1-BSP", "HDMI1-AMP", "HDMI4-BD")                  \
  X(GetVStrSourceList, "TV_ALIAS_NAME", "HDMI1", "HDMI1_ALIAS_NAME", "HDMI2", "HDMI2_ALIAS_NAME", \
    "HDMI3", "HDMI3_ALIAS_NAME", "HDMI4", "HDMI4_ALIAS_NAME")                                     \
  X(GetVStrPictureModeList, "Standard", "Cinema Day", "Cinema Night", "Dynamic Sports")           \
  X(GetVStrColourTemperatureModeList, "Standard", "Warm", "Cool")                                 \
  X(GetVStrAdaptiveContrastList, "Off", "Low", "Medium", "High")                                  \
  X(GetVStrNoiseReductionList, "Off", "Low", "Medium", "High")                                    \
  X(GetVStrUltraSmoothMotionList, "Off", "Smooth", "Standard", "Clear", "Film", "Custom")         \
  X(GetVStrSoundModeList, "Stardard", "Theater", "Music", "Speech", "Late Night", "Sports")       \
  X(GetVStrHeadphoneModeList, "Headphone with Speakers", "Headphone Only")                        \
  X(GetVStrAudioOutputList, "BT Sound Bar", "ARC", "TV Speaker", "SPDIF Only")                    \
  X(GetVStrSubtitleList, LUM_LANGUAGES)                                                           \
  X(GetVStrAudioLanguageList, LUM_LANGUAGES)                                                      \
  X(BTSelfDiagnoseInfo, "BT Inspection failed. Because ...... no Bluetooth module answered.",     \
    "BT Self Diagnose")                                                                           \
  X(GetVStrBTDeviceList, "Name_test", "Addr_test", "Profile_test", "Attr_test")

#define LUM_DEFINE_TEXT_GETTER(Name, fallback)                                \
  namespace {                                                                 \
  std::atomic<StringGetter> g_slot##Name{nullptr};                            \
  }                                                                           \
  void Reg##Name(StringGetter callback) {                                     \
    Register(g_slot##Name, callback, #Name);                                  \
  }                                                                           \
  std::string Nk##Name() {                                                    \
    return CallOr(g_slot##Name, #Name, [] { return std::string(fallback); }); \
  }

#define LUM_DEFINE_INT_GETTER(Name, fallback)                         \
  namespace {                                                         \
  std::atomic<IntGetter> g_slot##Name{nullptr};                       \
  }                                                                   \
  void Reg##Name(IntGetter callback) {                                \
    Register(g_slot##Name, callback, #Name);                          \
  }                                                                   \
  int Nk##Name() {                                                    \
    return CallOr(g_slot##Name, #Name, [] { return int{fallback}; }); \
  }

#define LUM_DEFINE_BOOL_GETTER(Name, fallback)                         \
  namespace {                                                          \
  std::atomic<BoolGetter> g_slot##Name{nullptr};                       \
  }                                                                    \
  void Reg##Name(BoolGetter callback) {                                \
    Register(g_slot##Name, callback, #Name);                           \
  }                                                                    \
  bool Nk##Name() {                                                    \
    return CallOr(g_slot##Name, #Name, [] { return bool{fallback}; }); \
  }

#define LUM_DEFINE_TEXT_SETTER(Name)                   \
  namespace {                                          \
  std::atomic<StringSetter> g_slot##Name{nullptr};     \
  }                                                    \
  void Reg##Name(StringSetter callback) {              \
    Register(g_slot##Name, callback, #Name);           \
  }                                                    \
  int Nk##Name(const std::string& value) {             \
    return CallOr(                                     \
        g_slot##Name, #Name, [] { return 0; }, value); \
  }

#define LUM_DEFINE_INT_SETTER(Name)                    \
  namespace {                                          \
  std::atomic<IntSetter> g_slot##Name{nullptr};        \
  }                                                    \
  void Reg##Name(IntSetter callback) {                 \
    Register(g_slot##Name, callback, #Name);           \
  }                                                    \
  int Nk##Name(int value) {                            \
    return CallOr(                                     \
        g_slot##Name, #Name, [] { return 0; }, value); \
  }

#define LUM_DEFINE_LIST_GETTER(Name, ...)           \
  namespace {                                       \
  std::atomic<ListGetter> g_slot##Name{nullptr};    \
  }                                                 \
  void Reg##Name(ListGetter callback) {             \
    Register(g_slot##Name, callback, #Name);        \
  }                                                 \
  int Nk##Name(std::vector<std::string>& entries) { \
    return CallOr(                                  \
        g_slot##Name, #Name,                        \
        [&entries] {                                \
          Append(entries, {__VA_ARGS__});           \
          return 0;                                 \
        },                                          \
        entries);                                   \
  }

LUM_TEXT_GETTERS(LUM_DEFINE_TEXT_GETTER)
LUM_INT_GETTERS(LUM_DEFINE_INT_GETTER)
LUM_BOOL_GETTERS(LUM_DEFINE_BOOL_GETTER)
LUM_TEXT_SETTERS(LUM_DEFINE_TEXT_SETTER)
LUM_INT_SETTERS(LUM_DEFINE_INT_SETTER)
LUM_LIST_GETTERS(LUM_DEFINE_LIST_GETTER)

namespace {

std::atomic<IntGetter> g_slotGetTimeOutFlag{nullptr};
std::atomic<StringGetter> g_slotGetLumPassword{nullptr};
std::atomic<BoolSetter> g_slotSetOverscan{nullptr};
std::atomic<ArcInspectCallback> g_slotArcInspect{nullptr};
std::atomic<ReadFilePathCallback> g_slotGetReadFilePath{nullptr};
std::atomic<FillVideoBufferCallback> g_slotFillVideoBuffer{nullptr};
std::atomic<OrigIdentityCallback> g_slotGetOrigLumIdJsonIdentity{nullptr};
std::atomic<KeyEventCallback> g_slotKeyEventProc{nullptr};
std::atomic<PasswordGenerator> g_slotGenerateLumPassword{nullptr};

}  // namespace

void RegGetTimeOutFlag(IntGetter callback) {
  Register(g_slotGetTimeOutFlag, callback, "GetTimeOutFlag");
}

// Without a platform there is no session prompt on screen that could still
// be waiting for the user, so the flag reports it as timed out: a new support
// request may then replace a session that nobody can join any more.
int NkGetTimeOutFlag() {
  return CallOr(g_slotGetTimeOutFlag, "GetTimeOutFlag", [] { return 1; });
}

void RegGetLumPassword(StringGetter callback) {
  Register(g_slotGetLumPassword, callback, "GetLumPassword");
}

std::string NkGetLumPassword() {
  return CallOr(g_slotGetLumPassword, "GetLumPassword", [] {
    return NkGenerateLumPassword({NkGetDeviceSN(), NkGetMacAddress()});
  });
}

void RegGenerateLumPassword(PasswordGenerator callback) {
  Register(g_slotGenerateLumPassword, callback, "GenerateLumPassword");
}

// The fallback is a digest of the device facts rather than random bytes
// because it is also the pass phrase of the client key stored on the device:
// it must come out the same at every start. It is computed rather than kept
// as a constant so that devices do not share one and the binary holds none.
// Each part is prefixed with its length so that ("ab", "c") and ("a", "bc")
// give different passwords.
std::string NkGenerateLumPassword(const std::vector<std::string>& parts) {
  LUM_TRACE(kService);
  return CallOr(
      g_slotGenerateLumPassword, "GenerateLumPassword",
      [&parts] {
        std::string material = kPasswordContext;
        for (const std::string& part : parts) {
          material += std::to_string(part.size()) + ":" + part + "\n";
        }
        std::string digest;
        Core::Sha256Util::Hash(material, digest);
        return digest.substr(0, kPasswordLength);
      },
      parts);
}

void RegSetOverscan(BoolSetter callback) {
  Register(g_slotSetOverscan, callback, "SetOverscan");
}

int NkSetOverscan(bool value) {
  return CallOr(
      g_slotSetOverscan, "SetOverscan", [] { return 0; }, value);
}

void RegArcInspect(ArcInspectCallback callback) {
  Register(g_slotArcInspect, callback, "ArcInspect");
}

int NkArcInspect(std::string& portName, std::string& deviceName) {
  return CallOr(
      g_slotArcInspect, "ArcInspect",
      [&portName, &deviceName] {
        portName = "N/A";
        deviceName = "No Arc device.";
        return 0;
      },
      portName, deviceName);
}

void RegGetReadFilePath(ReadFilePathCallback callback) {
  Register(g_slotGetReadFilePath, callback, "GetReadFilePath");
}

std::string NkGetReadFilePath(const std::string& fileName, int index) {
  return CallOr(
      g_slotGetReadFilePath, "GetReadFilePath", [] { return std::string(); }, fileName, index);
}

void RegFillVideoBuffer(FillVideoBufferCallback callback) {
  Register(g_slotFillVideoBuffer, callback, "FillVideoBuffer");
}

int NkFillVideoBuffer(unsigned char* buffer, unsigned int size) {
  return CallOr(
      g_slotFillVideoBuffer, "FillVideoBuffer", [] { return -1; }, buffer, size);
}

void RegGetOrigLumIdJsonIdentity(OrigIdentityCallback callback) {
  Register(g_slotGetOrigLumIdJsonIdentity, callback, "GetOrigLumIdJsonIdentity");
}

char* NkGetOrigLumIdJsonIdentity(char* buffer) {
  return CallOr(
      g_slotGetOrigLumIdJsonIdentity, "GetOrigLumIdJsonIdentity",
      [] { return static_cast<char*>(nullptr); }, buffer);
}

void RegKeyEventProc(KeyEventCallback callback) {
  Register(g_slotKeyEventProc, callback, "KeyEventProc");
}

int NkKeyEventProc(const std::string& keyName) {
  return CallOr(
      g_slotKeyEventProc, "KeyEventProc",
      [&keyName] {
        LUM_LOG(kService, kState, FilterProperties::SEVERITY_INFO,
                "[Stub] Norvik Key %s pressed.\n", keyName.c_str());
        return 0;
      },
      keyName);
}

// ---------------------------------------------------------------------------
// Remote-control keys.

namespace {

std::map<std::string, std::string> g_lum_norvik_key_map;
std::once_flag g_keyMapFilled;

// The back end names keys after the remote's labels; the platform's input
// layer wants them as "KEY_" names. Service buttons come as "SVC_" names.
void FillKeyMap() {
  static const char* const kPlainKeys[] = {
      "POWER",      "HOME", "MENU",      "BACK",        "EXIT",   "INFO",        "OK",
      "UP",         "DOWN", "LEFT",      "RIGHT",       "RED",    "GREEN",       "YELLOW",
      "BLUE",       "PLAY", "PAUSE",     "STOP",        "REWIND", "FASTFORWARD", "VOLUMEUP",
      "VOLUMEDOWN", "MUTE", "CHANNELUP", "CHANNELDOWN", "SOURCE", "GUIDE",       "SUBTITLE"};
  static const char* const kServiceKeys[] = {"NETFLIX", "YOUTUBE", "PRIMEVIDEO"};
  for (const char* key : kPlainKeys) {
    g_lum_norvik_key_map.emplace(key, std::string("KEY_") + key);
  }
  for (const char* key : kServiceKeys) {
    g_lum_norvik_key_map.emplace(std::string("SVC_") + key, std::string("KEY_") + key);
  }
}

}  // namespace

// Key injection must work in a host that never ran the start-up routine, so
// the first reader fills the map as well; std::call_once makes the filled map
// visible to every thread that passes through it.
const std::map<std::string, std::string>& LumNorvikKeyMap() {
  std::call_once(g_keyMapFilled, FillKeyMap);
  return g_lum_norvik_key_map;
}

int LumKeyEventProc(const std::string& backEndKeyName) {
  LUM_TRACE(kService);
  LUM_LOG(kService, kState, FilterProperties::SEVERITY_INFO, "Lum Remote Button %s pressed.",
          backEndKeyName.c_str());
  const std::map<std::string, std::string>& keyMap = LumNorvikKeyMap();
  const auto found = keyMap.find(backEndKeyName);
  if (found == keyMap.end()) {
    LUM_LOG(kService, kState, FilterProperties::SEVERITY_ERROR,
            "Error! Can not find Norvik Button.");
    return -1;
  }
  LUM_LOG(kService, kState, FilterProperties::SEVERITY_INFO, "Norvik Button %s pressed.",
          found->second.c_str());
  return NkKeyEventProc(found->second);
}

// ---------------------------------------------------------------------------
// Application start-up.

namespace {

constexpr char kPersistentDirectory[] = "/var/local/persistent";
constexpr char kTemporaryDirectory[] = "/var/run/temporary";
constexpr char kOriginalIdentityFile[] = "/usr/local/opt/lum/id.json";
constexpr char kIdentityFile[] = "/var/local/persistent/lum_id.json";
constexpr char kPrivateKeyFile[] = "/var/run/temporary/privatekey.pem";

bool MakeDirectories(const std::string& path) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string prefix = path.substr(0, slash);
    if (mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) {
      LUM_LOG(kService, kState, FilterProperties::SEVERITY_ERROR, "Cannot create %s: errno %d",
              prefix.c_str(), errno);
      return false;
    }
    if (slash == std::string::npos) {
      break;
    }
  }
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool ReadWholeFile(const std::string& path, std::string& content) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    return false;
  }
  std::ostringstream buffer;
  buffer << in.rdbuf();
  content = buffer.str();
  return !in.bad();
}

bool WriteAll(int fd, const std::string& content) {
  size_t written = 0;
  while (written < content.size()) {
    const ssize_t n = write(fd, content.data() + written, content.size() - written);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    written += static_cast<size_t>(n);
  }
  return true;
}

// Credentials go to a scratch file readable by the owner only, which then
// replaces the target in one rename, so a reader never sees half a file.
bool WritePrivateFile(const std::string& path, const std::string& content) {
  const std::string scratch = path + ".tmp";
  const int fd = open(scratch.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    return false;
  }
  const bool written = fchmod(fd, 0600) == 0 && WriteAll(fd, content) && fsync(fd) == 0;
  const bool closed = close(fd) == 0;
  if (!written || !closed || rename(scratch.c_str(), path.c_str()) != 0) {
    unlink(scratch.c_str());
    return false;
  }
  return true;
}

}  // namespace

bool NkCreateNewLumIdJson(const std::string& originalIdentityPath,
                          const std::string& newIdentityPath, const std::string& privateKeyPath,
                          const std::string& password) {
  LUM_TRACE(kService);
  std::string text;
  LumJson::Value identity;
  if (!ReadWholeFile(originalIdentityPath, text) || !Core::JsonUtil::ParseStrict(text, identity) ||
      !identity.isObject() || !identity["key"].isString()) {
    return false;
  }
  if (!identity.isMember("password") && !password.empty()) {
    identity["password"] = password;
  }
  LumJson::StreamWriterBuilder writer;
  writer["indentation"] = "  ";
  return WritePrivateFile(privateKeyPath, identity["key"].asString()) &&
         WritePrivateFile(newIdentityPath, LumJson::writeString(writer, identity) + "\n");
}

bool NkLumLinuxAppInitUnder(const std::string& root) {
  LUM_TRACE(kService);
  LUM_LOG(kService, kState, FilterProperties::SEVERITY_INFO, "NkLumLinuxAppInit called.");
  bool prepared = MakeDirectories(root + kPersistentDirectory);
  prepared = MakeDirectories(root + kTemporaryDirectory) && prepared;
  if (!NkCreateNewLumIdJson(root + kOriginalIdentityFile, root + kIdentityFile,
                            root + kPrivateKeyFile, NkGetLumPassword())) {
    LUM_LOG(kService, kState, FilterProperties::SEVERITY_ERROR, "new_id.json edit failed.");
    prepared = false;
  }
  LumNorvikKeyMap();
  return prepared;
}

void NkLumLinuxAppInit() {
  NkLumLinuxAppInitUnder("");
}

}  // namespace Sv
}  // namespace Lum
