// Registers and removes a callback through every function of the platform
// header, the way the television's software does, linked with liblum.so.0.
#include <lum_platform.h>

#include <cstdio>

namespace {

std::string Text() {
  return "text";
}
int Number() {
  return 1;
}
bool Flag() {
  return true;
}
int SetText(const std::string&) {
  return 0;
}
int SetNumber(int) {
  return 0;
}
int SetFlag(bool) {
  return 0;
}
int List(std::vector<std::string>& entries) {
  entries.push_back("entry");
  return 0;
}
int Arc(std::string&, std::string&) {
  return 0;
}
std::string ReadFilePath(const std::string& name, int) {
  return name;
}
int Frame(unsigned char*, unsigned int) {
  return -1;
}
char* Identity(char* buffer) {
  return buffer;
}
int Key(const std::string&) {
  return 0;
}
std::string Password(const std::vector<std::string>&) {
  return "password";
}

template <typename Fn>
void RegisterAndRemove(void (*reg)(Fn), Fn callback) {
  reg(callback);
  reg(nullptr);
}

}  // namespace

int main() {
  using namespace Lum::Sv;
  RegisterAndRemove<StringGetter>(RegGetSystemCountry, Text);
  RegisterAndRemove<StringGetter>(RegGetPlatformModel, Text);
  RegisterAndRemove<StringGetter>(RegGetSystemLanguage, Text);
  RegisterAndRemove<StringGetter>(RegGetRunningMode, Text);
  RegisterAndRemove<StringGetter>(RegGetNetflixKey, Text);
  RegisterAndRemove<StringGetter>(RegGetCIPlusKey, Text);
  RegisterAndRemove<StringGetter>(RegGetEDIDInfo, Text);
  RegisterAndRemove<StringGetter>(RegGetTvVideoFormat, Text);
  RegisterAndRemove<StringGetter>(RegGetTvAudioFormat, Text);
  RegisterAndRemove<StringGetter>(RegGetTvColourFormat, Text);
  RegisterAndRemove<StringGetter>(RegGetTvSignalQuality, Text);
  RegisterAndRemove<StringGetter>(RegGetTvSignalLevel, Text);
  RegisterAndRemove<StringGetter>(RegGetTvHDRType, Text);
  RegisterAndRemove<StringGetter>(RegGetModulationType, Text);
  RegisterAndRemove<StringGetter>(RegGetChannelFrequency, Text);
  RegisterAndRemove<StringGetter>(RegGetSourceName, Text);
  RegisterAndRemove<StringGetter>(RegGetAdaptiveContrast, Text);
  RegisterAndRemove<StringGetter>(RegGetUltraSmoothMotion, Text);
  RegisterAndRemove<StringGetter>(RegGetNoiseReduction, Text);
  RegisterAndRemove<StringGetter>(RegGetCurrentChannel, Text);
  RegisterAndRemove<StringGetter>(RegGetSubtitle, Text);
  RegisterAndRemove<StringGetter>(RegGetAudioLanguage, Text);
  RegisterAndRemove<StringGetter>(RegGetWifiFirmware, Text);
  RegisterAndRemove<StringGetter>(RegGetArcPortName, Text);
  RegisterAndRemove<StringGetter>(RegGetMacAddress, Text);
  RegisterAndRemove<StringGetter>(RegGetManufacturedDate, Text);
  RegisterAndRemove<StringGetter>(RegGetInitialPowerOnDate, Text);
  RegisterAndRemove<StringGetter>(RegGetDeviceSN, Text);
  RegisterAndRemove<StringGetter>(RegGetBrand, Text);
  RegisterAndRemove<StringGetter>(RegGetLumModel, Text);
  RegisterAndRemove<StringGetter>(RegGetLumSubModel, Text);
  RegisterAndRemove<StringGetter>(RegGetSwVersion, Text);
  RegisterAndRemove<StringGetter>(RegGetPictureMode, Text);
  RegisterAndRemove<StringGetter>(RegGetColourTemperature, Text);
  RegisterAndRemove<StringGetter>(RegGetSoundMode, Text);
  RegisterAndRemove<StringGetter>(RegGetMuteStatus, Text);
  RegisterAndRemove<StringGetter>(RegGetHeadphoneMode, Text);
  RegisterAndRemove<StringGetter>(RegGetAudioOutput, Text);
  RegisterAndRemove<StringGetter>(RegGetPictureInspectionRespond, Text);
  RegisterAndRemove<StringGetter>(RegGetSoundInspectionRespond, Text);
  RegisterAndRemove<StringGetter>(RegGetRegion, Text);
  RegisterAndRemove<StringGetter>(RegGetLumPassword, Text);
  RegisterAndRemove<IntGetter>(RegActionPictureInspect, Number);
  RegisterAndRemove<IntGetter>(RegActionSoundInspect, Number);
  RegisterAndRemove<IntGetter>(RegActionOTA, Number);
  RegisterAndRemove<IntGetter>(RegFactoryReset, Number);
  RegisterAndRemove<IntGetter>(RegGetSpeakerArcMode, Number);
  RegisterAndRemove<IntGetter>(RegGetNetworkLinkStatus, Number);
  RegisterAndRemove<IntGetter>(RegGetEnhancedACRState, Number);
  RegisterAndRemove<IntGetter>(RegGetColourSaturation, Number);
  RegisterAndRemove<IntGetter>(RegGetVolume, Number);
  RegisterAndRemove<IntGetter>(RegGetLipSync, Number);
  RegisterAndRemove<IntGetter>(RegGetWifiSignalStrength, Number);
  RegisterAndRemove<IntGetter>(RegGetTimeOutFlag, Number);
  RegisterAndRemove<BoolGetter>(RegIsBTHeadphoneExist, Flag);
  RegisterAndRemove<BoolGetter>(RegIsWiredHeadphoneExist, Flag);
  RegisterAndRemove<BoolGetter>(RegGetOverscan, Flag);
  RegisterAndRemove<BoolGetter>(RegIsHbbtv, Flag);
  RegisterAndRemove<BoolGetter>(RegIsCECSupport, Flag);
  RegisterAndRemove<BoolGetter>(RegIsProtectUserData, Flag);
  RegisterAndRemove<StringSetter>(RegSetSource, SetText);
  RegisterAndRemove<StringSetter>(RegSetPictureMode, SetText);
  RegisterAndRemove<StringSetter>(RegSetColourTemperature, SetText);
  RegisterAndRemove<StringSetter>(RegSetAdaptiveContrast, SetText);
  RegisterAndRemove<StringSetter>(RegSetUltraSmoothMotion, SetText);
  RegisterAndRemove<StringSetter>(RegSetNoiseReduction, SetText);
  RegisterAndRemove<StringSetter>(RegSetMuteStatus, SetText);
  RegisterAndRemove<StringSetter>(RegSetSoundMode, SetText);
  RegisterAndRemove<StringSetter>(RegSetHeadphoneMode, SetText);
  RegisterAndRemove<StringSetter>(RegSetAudioOutput, SetText);
  RegisterAndRemove<StringSetter>(RegSetSubtitle, SetText);
  RegisterAndRemove<StringSetter>(RegSetAudioLanguage, SetText);
  RegisterAndRemove<StringSetter>(RegBackupReadFile, SetText);
  RegisterAndRemove<StringSetter>(RegRemoveReadFile, SetText);
  RegisterAndRemove<BoolSetter>(RegSetOverscan, SetFlag);
  RegisterAndRemove<IntSetter>(RegSetColourSaturation, SetNumber);
  RegisterAndRemove<IntSetter>(RegSetVolume, SetNumber);
  RegisterAndRemove<IntSetter>(RegSetLipSync, SetNumber);
  RegisterAndRemove<IntSetter>(RegEnableHbbtv, SetNumber);
  RegisterAndRemove<IntSetter>(RegRestoreAQPQ, SetNumber);
  RegisterAndRemove<IntSetter>(RegResetAQPQ, SetNumber);
  RegisterAndRemove<IntSetter>(RegSetEnhancedACRState, SetNumber);
  RegisterAndRemove<ListGetter>(RegGetVStrHDCPInfo, List);
  RegisterAndRemove<ListGetter>(RegGetVStrHDMIPortNameList, List);
  RegisterAndRemove<ListGetter>(RegGetVStrHDMIDeviceNameList, List);
  RegisterAndRemove<ListGetter>(RegGetVStrSourceList, List);
  RegisterAndRemove<ListGetter>(RegGetVStrPictureModeList, List);
  RegisterAndRemove<ListGetter>(RegGetVStrColourTemperatureModeList, List);
  RegisterAndRemove<ListGetter>(RegGetVStrAdaptiveContrastList, List);
  RegisterAndRemove<ListGetter>(RegGetVStrNoiseReductionList, List);
  RegisterAndRemove<ListGetter>(RegGetVStrUltraSmoothMotionList, List);
  RegisterAndRemove<ListGetter>(RegGetVStrSoundModeList, List);
  RegisterAndRemove<ListGetter>(RegGetVStrHeadphoneModeList, List);
  RegisterAndRemove<ListGetter>(RegGetVStrAudioOutputList, List);
  RegisterAndRemove<ListGetter>(RegGetVStrSubtitleList, List);
  RegisterAndRemove<ListGetter>(RegGetVStrAudioLanguageList, List);
  RegisterAndRemove<ListGetter>(RegBTSelfDiagnoseInfo, List);
  RegisterAndRemove<ListGetter>(RegGetVStrBTDeviceList, List);
  RegisterAndRemove<ArcInspectCallback>(RegArcInspect, Arc);
  RegisterAndRemove<ReadFilePathCallback>(RegGetReadFilePath, ReadFilePath);
  RegisterAndRemove<FillVideoBufferCallback>(RegFillVideoBuffer, Frame);
  RegisterAndRemove<OrigIdentityCallback>(RegGetOrigLumIdJsonIdentity, Identity);
  RegisterAndRemove<KeyEventCallback>(RegKeyEventProc, Key);
  RegisterAndRemove<PasswordGenerator>(RegGenerateLumPassword, Password);
  std::puts("all platform registrations linked");
  return 0;
}
