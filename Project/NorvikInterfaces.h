#pragma once

// The agent's side of the platform binding: one wrapper per callback that the
// television's software registers through the Reg functions of
// <lum_platform.h>. A wrapper calls the registered callback, passing its
// arguments and result through unchanged, or answers with the item's fixed
// test value when nothing is registered, so every command also runs on a
// device whose platform registered nothing.
//
// Thread safety: each callback slot is a std::atomic function pointer, so the
// host may register or remove callbacks from any thread while agent threads
// call the wrappers; no mutex is involved. The key map is built once under a
// std::call_once and is read-only afterwards.

#include <map>
#include <string>
#include <vector>

#include "lum_platform.h"

namespace Lum {
namespace Sv {

// Text getters.
std::string NkGetSystemCountry();
std::string NkGetPlatformModel();
std::string NkGetSystemLanguage();
std::string NkGetRunningMode();
std::string NkGetNetflixKey();
std::string NkGetCIPlusKey();
std::string NkGetEDIDInfo();
std::string NkGetTvVideoFormat();
std::string NkGetTvAudioFormat();
std::string NkGetTvColourFormat();
std::string NkGetTvSignalQuality();
std::string NkGetTvSignalLevel();
std::string NkGetTvHDRType();
std::string NkGetModulationType();
std::string NkGetChannelFrequency();
std::string NkGetSourceName();
std::string NkGetAdaptiveContrast();
std::string NkGetUltraSmoothMotion();
std::string NkGetNoiseReduction();
std::string NkGetCurrentChannel();
std::string NkGetSubtitle();
std::string NkGetAudioLanguage();
std::string NkGetWifiFirmware();
std::string NkGetArcPortName();
std::string NkGetMacAddress();
std::string NkGetManufacturedDate();
std::string NkGetInitialPowerOnDate();
std::string NkGetDeviceSN();
std::string NkGetBrand();
std::string NkGetLumModel();
std::string NkGetLumSubModel();
std::string NkGetSwVersion();
std::string NkGetPictureMode();
std::string NkGetColourTemperature();
std::string NkGetSoundMode();
std::string NkGetMuteStatus();
std::string NkGetHeadphoneMode();
std::string NkGetAudioOutput();
std::string NkGetPictureInspectionRespond();
std::string NkGetSoundInspectionRespond();
std::string NkGetRegion();
// The pass phrase of the device's client key and support password. Without a
// platform callback it is derived (NkGenerateLumPassword) from the device's
// serial number and MAC address.
std::string NkGetLumPassword();

// Number and flag getters, and actions without arguments.
int NkActionPictureInspect();
int NkActionSoundInspect();
int NkActionOTA();
int NkFactoryReset();
int NkGetSpeakerArcMode();
int NkGetNetworkLinkStatus();
int NkGetEnhancedACRState();
int NkGetColourSaturation();
int NkGetVolume();
int NkGetLipSync();
int NkGetWifiSignalStrength();
// Non-zero when the platform allows a new support session to replace one
// that is still waiting to be joined.
int NkGetTimeOutFlag();
bool NkIsBTHeadphoneExist();
bool NkIsWiredHeadphoneExist();
bool NkGetOverscan();
bool NkIsHbbtv();
bool NkIsCECSupport();
bool NkIsProtectUserData();

// Setters.
int NkSetSource(const std::string& value);
int NkSetPictureMode(const std::string& value);
int NkSetColourTemperature(const std::string& value);
int NkSetAdaptiveContrast(const std::string& value);
int NkSetUltraSmoothMotion(const std::string& value);
int NkSetNoiseReduction(const std::string& value);
int NkSetMuteStatus(const std::string& value);
int NkSetSoundMode(const std::string& value);
int NkSetHeadphoneMode(const std::string& value);
int NkSetAudioOutput(const std::string& value);
int NkSetSubtitle(const std::string& value);
int NkSetAudioLanguage(const std::string& value);
int NkBackupReadFile(const std::string& fileName);
int NkRemoveReadFile(const std::string& fileName);
int NkSetOverscan(bool value);
int NkSetColourSaturation(int value);
int NkSetVolume(int value);
int NkSetLipSync(int value);
int NkEnableHbbtv(int value);
int NkRestoreAQPQ(int value);
int NkResetAQPQ(int value);
int NkSetEnhancedACRState(int value);

// List getters: append to `entries` and return the callback's result, or
// append the test list and return 0.
int NkGetVStrHDCPInfo(std::vector<std::string>& entries);
int NkGetVStrHDMIPortNameList(std::vector<std::string>& entries);
int NkGetVStrHDMIDeviceNameList(std::vector<std::string>& entries);
int NkGetVStrSourceList(std::vector<std::string>& entries);
int NkGetVStrPictureModeList(std::vector<std::string>& entries);
int NkGetVStrColourTemperatureModeList(std::vector<std::string>& entries);
int NkGetVStrAdaptiveContrastList(std::vector<std::string>& entries);
int NkGetVStrNoiseReductionList(std::vector<std::string>& entries);
int NkGetVStrUltraSmoothMotionList(std::vector<std::string>& entries);
int NkGetVStrSoundModeList(std::vector<std::string>& entries);
int NkGetVStrHeadphoneModeList(std::vector<std::string>& entries);
int NkGetVStrAudioOutputList(std::vector<std::string>& entries);
int NkGetVStrSubtitleList(std::vector<std::string>& entries);
int NkGetVStrAudioLanguageList(std::vector<std::string>& entries);
int NkBTSelfDiagnoseInfo(std::vector<std::string>& entries);
int NkGetVStrBTDeviceList(std::vector<std::string>& entries);

// The rest.
int NkArcInspect(std::string& portName, std::string& deviceName);
std::string NkGetReadFilePath(const std::string& fileName, int index);
// -1 when no frame was captured.
int NkFillVideoBuffer(unsigned char* buffer, unsigned int size);
// Null when the platform keeps no original identity.
char* NkGetOrigLumIdJsonIdentity(char* buffer);
// Presses a key given by its platform name ("KEY_HOME").
int NkKeyEventProc(const std::string& keyName);
std::string NkGenerateLumPassword(const std::vector<std::string>& parts);

// Presses the remote-control key the back end calls `backEndKeyName` ("HOME",
// "SVC_NETFLIX"). Returns the platform's result, or -1 for a name outside the
// key map, which presses nothing.
int LumKeyEventProc(const std::string& backEndKeyName);

// Back-end key name to platform key name. Complete after the first call.
const std::map<std::string, std::string>& LumNorvikKeyMap();

// Application start-up: creates the persistent and temporary directories,
// prepares the device identity file and fills the key map.
void NkLumLinuxAppInit();
// The same below `root` (a directory prefix, "" for the real file system).
// Returns false when a directory or the identity file could not be prepared.
bool NkLumLinuxAppInitUnder(const std::string& root);

// Writes the identity at `newIdentityPath` from the one at
// `originalIdentityPath`, with "password" set to `password` unless the
// original carries one, and its client key PEM to `privateKeyPath`. Both files
// are readable by the owner only. False when the original is missing, is not
// a JSON object with a text "key", or a file cannot be written.
bool NkCreateNewLumIdJson(const std::string& originalIdentityPath,
                          const std::string& newIdentityPath, const std::string& privateKeyPath,
                          const std::string& password);

}  // namespace Sv
}  // namespace Lum
