// The platform header compiles on its own under -pedantic, and a host
// program registers one callback of each shape through liblum.so.0.
#include <lum_platform.h>

#include <cstdio>

namespace {

template <typename Fn>
void RegisterAndRemove(void (*reg)(Fn), Fn callback) {
  reg(callback);
  reg(nullptr);
}

}  // namespace

int main() {
  using namespace Lum::Sv;
  RegisterAndRemove<StringGetter>(RegGetSystemCountry, [] { return std::string("text"); });
  RegisterAndRemove<IntGetter>(RegActionPictureInspect, [] { return 1; });
  RegisterAndRemove<BoolGetter>(RegIsBTHeadphoneExist, [] { return true; });
  RegisterAndRemove<StringSetter>(RegSetSource, [](const std::string&) { return 0; });
  RegisterAndRemove<BoolSetter>(RegSetOverscan, [](bool) { return 0; });
  RegisterAndRemove<IntSetter>(RegSetColourSaturation, [](int) { return 0; });
  RegisterAndRemove<ListGetter>(RegGetVStrHDCPInfo, [](std::vector<std::string>&) { return 0; });
  RegisterAndRemove<ArcInspectCallback>(RegArcInspect,
                                        [](std::string&, std::string&) { return 0; });
  RegisterAndRemove<ReadFilePathCallback>(RegGetReadFilePath,
                                          [](const std::string& name, int) { return name; });
  RegisterAndRemove<FillVideoBufferCallback>(RegFillVideoBuffer,
                                             [](unsigned char*, unsigned int) { return -1; });
  RegisterAndRemove<OrigIdentityCallback>(RegGetOrigLumIdJsonIdentity, [](char* b) { return b; });
  RegisterAndRemove<KeyEventCallback>(RegKeyEventProc, [](const std::string&) { return 0; });
  RegisterAndRemove<PasswordGenerator>(
      RegGenerateLumPassword, [](const std::vector<std::string>&) { return std::string("pw"); });
  std::puts("all platform registrations linked");
  return 0;
}
