// The platform header compiles on its own under -pedantic, and a host
// program registers one callback of each shape through liblum.so.0. (That
// every registration is defined is checked by the binding's unit tests, that
// each is exported by the exported-symbol list.)
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
  RegisterAndRemove<IntGetter>(RegActionPictureInspect, Number);
  RegisterAndRemove<BoolGetter>(RegIsBTHeadphoneExist, Flag);
  RegisterAndRemove<StringSetter>(RegSetSource, SetText);
  RegisterAndRemove<BoolSetter>(RegSetOverscan, SetFlag);
  RegisterAndRemove<IntSetter>(RegSetColourSaturation, SetNumber);
  RegisterAndRemove<ListGetter>(RegGetVStrHDCPInfo, List);
  RegisterAndRemove<ArcInspectCallback>(RegArcInspect, Arc);
  RegisterAndRemove<ReadFilePathCallback>(RegGetReadFilePath, ReadFilePath);
  RegisterAndRemove<FillVideoBufferCallback>(RegFillVideoBuffer, Frame);
  RegisterAndRemove<OrigIdentityCallback>(RegGetOrigLumIdJsonIdentity, Identity);
  RegisterAndRemove<KeyEventCallback>(RegKeyEventProc, Key);
  RegisterAndRemove<PasswordGenerator>(RegGenerateLumPassword, Password);
  std::puts("all platform registrations linked");
  return 0;
}
