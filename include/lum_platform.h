/*
 * liblum platform callbacks: how the television's software lets the agent
 * read and change the television's settings.
 *
 * At start-up the television's software registers one function per item
 * with the matching Reg function below. Registering a null pointer removes
 * the callback again. An item without a callback answers with a fixed test
 * value, so the agent runs (with test values) on a device that registers
 * nothing. Registration may happen at any time, from any thread, also while
 * the agent is running: a callback can be called from any of the agent's
 * threads, including several at once, and must stay callable until it has
 * been replaced or removed and the agent has been terminated.
 *
 * Callbacks must not throw: an exception thrown by one is caught, logged and
 * answered with the item's test value.
 *
 * Callbacks must not call the Lum* functions of lum.h. The agent calls some
 * of them while it holds its own lock (LumInit reads the device's serial
 * number, model and password through them), and a Lum* call would wait for
 * that lock for ever. Such a call, made while the same thread is inside a
 * Lum* call, is refused with LUM_RESULT_REFUSED and a log line.
 *
 * This is a C++ header: the callbacks exchange std::string and
 * std::vector<std::string>, so the television's software must be built with
 * the same C++ standard library as liblum.
 */
#ifndef LUM_PLATFORM_H
#define LUM_PLATFORM_H

#include <string>
#include <vector>

#include "lum.h"

namespace Lum {
namespace Sv {

/* Callback shapes. */
typedef std::string (*StringGetter)();
typedef int (*IntGetter)();
typedef bool (*BoolGetter)();
/* Setters and actions taking one value; 0 means success. */
typedef int (*StringSetter)(const std::string& value);
typedef int (*IntSetter)(int value);
typedef int (*BoolSetter)(bool value);
/* Appends entries to `entries` and returns 0 on success. */
typedef int (*ListGetter)(std::vector<std::string>& entries);
/* Fills the port name and the attached device's name. */
typedef int (*ArcInspectCallback)(std::string& portName, std::string& deviceName);
typedef std::string (*ReadFilePathCallback)(const std::string& fileName, int index);
/* Copies one captured screen frame of at most `size` bytes into `buffer`;
   returns the number of bytes written, or -1 when there is no frame. */
typedef int (*FillVideoBufferCallback)(unsigned char* buffer, unsigned int size);
typedef char* (*OrigIdentityCallback)(char* buffer);
/* Presses the remote-control key with the given platform name ("KEY_HOME"). */
typedef int (*KeyEventCallback)(const std::string& keyName);
/* Derives the support password from the given device facts. */
typedef std::string (*PasswordGenerator)(const std::vector<std::string>& parts);

/* Text getters. */
LUM_API void RegGetSystemCountry(StringGetter callback);
LUM_API void RegGetPlatformModel(StringGetter callback);
LUM_API void RegGetSystemLanguage(StringGetter callback);
LUM_API void RegGetRunningMode(StringGetter callback);
LUM_API void RegGetNetflixKey(StringGetter callback);
LUM_API void RegGetCIPlusKey(StringGetter callback);
LUM_API void RegGetEDIDInfo(StringGetter callback);
LUM_API void RegGetTvVideoFormat(StringGetter callback);
LUM_API void RegGetTvAudioFormat(StringGetter callback);
LUM_API void RegGetTvColourFormat(StringGetter callback);
LUM_API void RegGetTvSignalQuality(StringGetter callback);
LUM_API void RegGetTvSignalLevel(StringGetter callback);
LUM_API void RegGetTvHDRType(StringGetter callback);
LUM_API void RegGetModulationType(StringGetter callback);
LUM_API void RegGetChannelFrequency(StringGetter callback);
LUM_API void RegGetSourceName(StringGetter callback);
LUM_API void RegGetAdaptiveContrast(StringGetter callback);
LUM_API void RegGetUltraSmoothMotion(StringGetter callback);
LUM_API void RegGetNoiseReduction(StringGetter callback);
LUM_API void RegGetCurrentChannel(StringGetter callback);
LUM_API void RegGetSubtitle(StringGetter callback);
LUM_API void RegGetAudioLanguage(StringGetter callback);
LUM_API void RegGetWifiFirmware(StringGetter callback);
LUM_API void RegGetArcPortName(StringGetter callback);
LUM_API void RegGetMacAddress(StringGetter callback);
LUM_API void RegGetManufacturedDate(StringGetter callback);
LUM_API void RegGetInitialPowerOnDate(StringGetter callback);
LUM_API void RegGetDeviceSN(StringGetter callback);
LUM_API void RegGetBrand(StringGetter callback);
LUM_API void RegGetLumModel(StringGetter callback);
LUM_API void RegGetLumSubModel(StringGetter callback);
LUM_API void RegGetSwVersion(StringGetter callback);
LUM_API void RegGetPictureMode(StringGetter callback);
LUM_API void RegGetColourTemperature(StringGetter callback);
LUM_API void RegGetSoundMode(StringGetter callback);
LUM_API void RegGetMuteStatus(StringGetter callback);
LUM_API void RegGetHeadphoneMode(StringGetter callback);
LUM_API void RegGetAudioOutput(StringGetter callback);
LUM_API void RegGetPictureInspectionRespond(StringGetter callback);
LUM_API void RegGetSoundInspectionRespond(StringGetter callback);
LUM_API void RegGetRegion(StringGetter callback);
LUM_API void RegGetLumPassword(StringGetter callback);

/* Number and flag getters, and actions without arguments. */
LUM_API void RegActionPictureInspect(IntGetter callback);
LUM_API void RegActionSoundInspect(IntGetter callback);
LUM_API void RegActionOTA(IntGetter callback);
LUM_API void RegFactoryReset(IntGetter callback);
LUM_API void RegGetSpeakerArcMode(IntGetter callback);
LUM_API void RegGetNetworkLinkStatus(IntGetter callback);
LUM_API void RegGetEnhancedACRState(IntGetter callback);
LUM_API void RegGetColourSaturation(IntGetter callback);
LUM_API void RegGetVolume(IntGetter callback);
LUM_API void RegGetLipSync(IntGetter callback);
LUM_API void RegGetWifiSignalStrength(IntGetter callback);
LUM_API void RegGetTimeOutFlag(IntGetter callback);
LUM_API void RegIsBTHeadphoneExist(BoolGetter callback);
LUM_API void RegIsWiredHeadphoneExist(BoolGetter callback);
LUM_API void RegGetOverscan(BoolGetter callback);
LUM_API void RegIsHbbtv(BoolGetter callback);
LUM_API void RegIsCECSupport(BoolGetter callback);
LUM_API void RegIsProtectUserData(BoolGetter callback);

/* Setters. */
LUM_API void RegSetSource(StringSetter callback);
LUM_API void RegSetPictureMode(StringSetter callback);
LUM_API void RegSetColourTemperature(StringSetter callback);
LUM_API void RegSetAdaptiveContrast(StringSetter callback);
LUM_API void RegSetUltraSmoothMotion(StringSetter callback);
LUM_API void RegSetNoiseReduction(StringSetter callback);
LUM_API void RegSetMuteStatus(StringSetter callback);
LUM_API void RegSetSoundMode(StringSetter callback);
LUM_API void RegSetHeadphoneMode(StringSetter callback);
LUM_API void RegSetAudioOutput(StringSetter callback);
LUM_API void RegSetSubtitle(StringSetter callback);
LUM_API void RegSetAudioLanguage(StringSetter callback);
LUM_API void RegBackupReadFile(StringSetter callback);
LUM_API void RegRemoveReadFile(StringSetter callback);
LUM_API void RegSetOverscan(BoolSetter callback);
LUM_API void RegSetColourSaturation(IntSetter callback);
LUM_API void RegSetVolume(IntSetter callback);
LUM_API void RegSetLipSync(IntSetter callback);
LUM_API void RegEnableHbbtv(IntSetter callback);
LUM_API void RegRestoreAQPQ(IntSetter callback);
LUM_API void RegResetAQPQ(IntSetter callback);
LUM_API void RegSetEnhancedACRState(IntSetter callback);

/* List getters. */
LUM_API void RegGetVStrHDCPInfo(ListGetter callback);
LUM_API void RegGetVStrHDMIPortNameList(ListGetter callback);
LUM_API void RegGetVStrHDMIDeviceNameList(ListGetter callback);
LUM_API void RegGetVStrSourceList(ListGetter callback);
LUM_API void RegGetVStrPictureModeList(ListGetter callback);
LUM_API void RegGetVStrColourTemperatureModeList(ListGetter callback);
LUM_API void RegGetVStrAdaptiveContrastList(ListGetter callback);
LUM_API void RegGetVStrNoiseReductionList(ListGetter callback);
LUM_API void RegGetVStrUltraSmoothMotionList(ListGetter callback);
LUM_API void RegGetVStrSoundModeList(ListGetter callback);
LUM_API void RegGetVStrHeadphoneModeList(ListGetter callback);
LUM_API void RegGetVStrAudioOutputList(ListGetter callback);
LUM_API void RegGetVStrSubtitleList(ListGetter callback);
LUM_API void RegGetVStrAudioLanguageList(ListGetter callback);
LUM_API void RegBTSelfDiagnoseInfo(ListGetter callback);
LUM_API void RegGetVStrBTDeviceList(ListGetter callback);

/* The rest. */
LUM_API void RegArcInspect(ArcInspectCallback callback);
LUM_API void RegGetReadFilePath(ReadFilePathCallback callback);
LUM_API void RegFillVideoBuffer(FillVideoBufferCallback callback);
LUM_API void RegGetOrigLumIdJsonIdentity(OrigIdentityCallback callback);
LUM_API void RegKeyEventProc(KeyEventCallback callback);
LUM_API void RegGenerateLumPassword(PasswordGenerator callback);

}  // namespace Sv
}  // namespace Lum

#endif /* LUM_PLATFORM_H */
