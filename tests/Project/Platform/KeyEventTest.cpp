// Remote-control keys: back-end names are translated through the key map and
// pressed through the platform; unknown names press nothing.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Project/NorvikInterfaces.h"
#include "support/LogCapture.h"
#include "support/PlatformRegistration.h"

namespace {

using namespace Lum::Sv;
using LumTest::Registration;

std::vector<std::string> g_pressed;
int Press(const std::string& keyName) {
  g_pressed.push_back(keyName);
  return 3;
}

TEST(KeyEvents, KnownKeysArePressedUnderTheirPlatformNames) {
  const struct {
    const char* backEnd;
    const char* platform;
  } cases[] = {
      {"HOME", "KEY_HOME"}, {"MENU", "KEY_MENU"}, {"BACK", "KEY_BACK"},
      {"BLUE", "KEY_BLUE"}, {"STOP", "KEY_STOP"}, {"PLAY", "KEY_PLAY"},
      {"EXIT", "KEY_EXIT"}, {"INFO", "KEY_INFO"}, {"SVC_NETFLIX", "KEY_NETFLIX"},
  };
  Registration<KeyEventCallback> registration(RegKeyEventProc, Press);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.backEnd);
    g_pressed.clear();
    EXPECT_EQ(LumKeyEventProc(c.backEnd), 3);
    EXPECT_EQ(g_pressed, std::vector<std::string>{c.platform});
  }
}

TEST(KeyEvents, EveryMapEntryFollowsTheNamingScheme) {
  const auto& keyMap = LumNorvikKeyMap();
  EXPECT_GE(keyMap.size(), 24u);
  for (const auto& entry : keyMap) {
    const std::string& name = entry.first;
    const std::string bare = name.rfind("SVC_", 0) == 0 ? name.substr(4) : name;
    EXPECT_FALSE(bare.empty()) << name;
    EXPECT_EQ(entry.second, "KEY_" + bare) << name;
  }
}

TEST(KeyEvents, UnknownNamesPressNothing) {
  Registration<KeyEventCallback> registration(RegKeyEventProc, Press);
  for (const char* name : {"", "home", "KEY_HOME", "SVC_", "NOT_A_KEY", "HOME "}) {
    SCOPED_TRACE(name);
    LumTest::LogCapture log;
    g_pressed.clear();
    EXPECT_EQ(LumKeyEventProc(name), -1);
    EXPECT_TRUE(g_pressed.empty());
    EXPECT_TRUE(log.logged(std::string("Lum Remote Button ") + name + " pressed."));
    EXPECT_TRUE(log.logged("Error! Can not find Norvik Button."));
  }
}

TEST(KeyEvents, WithoutPlatformTheKeyIsOnlyLogged) {
  LumTest::LogCapture log;
  EXPECT_EQ(LumKeyEventProc("HOME"), 0);
  EXPECT_TRUE(log.logged("Lum Remote Button HOME pressed."));
  EXPECT_TRUE(log.logged("Norvik Button KEY_HOME pressed."));
  // The stub's message carries its own line feed on top of the format's.
  EXPECT_NE(log.text().find("[Stub] Norvik Key KEY_HOME pressed.\n\n"), std::string::npos)
      << log.text();
}

}  // namespace
