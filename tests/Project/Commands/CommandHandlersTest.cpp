#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Base/CommandExecutor.h"
#include "Platform/Clock.h"
#include "Platform/JsonUtil.h"
#include "Platform/System.h"
#include "Project/CommandManager.h"
#include "SimulatedTv.h"
#include "lum_platform.h"
#include "support/LogCapture.h"
#include "support/PlatformRegistration.h"
#include "support/TestSupport.h"

namespace {

using LumSim::SimulatedTv;
using LumSim::TvState;

LumJson::Value Parse(const std::string& text) {
  LumJson::Value value;
  const std::unique_ptr<LumJson::CharReader> reader(LumJson::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
  return value;
}

std::string Compact(const LumJson::Value& value) {
  return Lum::Core::JsonUtil::WriteCompact(value);
}

// What the television was asked to do and how it is set, for comparing
// before and after a request.
std::string Fingerprint(const TvState& s) {
  return SimulatedTv::Instance().describe() + " colour=" + s.colourTemperature.value +
         " saturation=" + std::to_string(s.colourSaturation) + " subtitle=" + s.subtitle.value +
         " hbbtv=" + std::to_string(s.hbbtv) + " resets=" + std::to_string(s.factoryResets) +
         " ota=" + std::to_string(s.otaStarts) + " aqpq=" + std::to_string(s.aqpqResets) + "/" +
         std::to_string(s.aqpqRestores) +
         " inspections=" + std::to_string(s.pictureInspections + s.soundInspections);
}

// The clock the agent would set, so that no test sets the machine's.
class RecordingClock : public Lum::Core::Clock {
 public:
  int setWall(const timeval& value) const override {
    set_ = value.tv_sec;
    return 0;
  }
  mutable time_t set_ = 0;
};

class CommandHandlersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Lum::Core::Clock::Set(&clock_);
    SimulatedTv::Instance().reset();
    ASSERT_TRUE(SimulatedTv::Instance().setFileDirectory(dir_.file("tv")));
    SimulatedTv::Instance().install();
    Lum::Sv::CommandManager::Instance()->initialize("acme", "inst", "DEV-1", "LT-55", "Acme",
                                                    "ESN-1", "00:11:22:33:44:55", "1.0.0");
  }
  void TearDown() override {
    Lum::Sv::CommandManager::Instance()->terminate();
    SimulatedTv::Instance().uninstall();
    SimulatedTv::Instance().setFileDirectory("");
    Lum::Core::Clock::Set(nullptr);
  }

  // The response element of one request.
  static LumJson::Value Run(const std::string& name, const std::string& operation,
                            const LumJson::Value& inputs) {
    LumJson::Value request;
    request["REQUESTS"][0]["COMMAND"]["NAME"] = name;
    request["REQUESTS"][0]["COMMAND"]["OPERATION"] = operation;
    request["REQUESTS"][0]["INPUTS"] = inputs;
    LumJson::Value output;
    Lum::Sv::CommandExecutor::processCommands(request, output);
    return output["RESPONSES"][0];
  }
  static LumJson::Value RunText(const std::string& name, const std::string& operation,
                                const std::string& inputs) {
    return Run(name, operation, Parse(inputs));
  }

  LumTest::TempDir dir_;
  RecordingClock clock_;
};

constexpr char kPictureTool[] = "B7E20D_LIVE_SUPPORT_PICTURE_DIAGNOSE_TOOL";
constexpr char kSoundTool[] = "B7E20D_LIVE_SUPPORT_SOUND_SETTINGS";
constexpr char kDtvTool[] = "B7E20D_LIVE_SUPPORT_DTV_DIAGNOSTIC_TOOL";
constexpr char kSource[] = "B7E20D_LIVE_SUPPORT_SOURCE_CHANGE_TOOL";
constexpr char kButton[] = "FFFFFF_LIVE_SUPPORT_TV_REMOTE_BUTTON";
constexpr char kFactoryReset[] = "FFFFFF_LIVE_SUPPORT_RESET_FACTORY_DEFAULTS";
constexpr char kReturn[] = "FFFFFF_LIVE_SUPPORT_PRODUCT_RETURN_PREPROCESS";
constexpr char kOta[] = "B7E20D_LIVE_SUPPORT_OTA_TOOL";
constexpr char kRestore[] = "B7E20D_LIVE_SUPPORT_PQ_AQ_RESTORE";
constexpr char kReset[] = "B7E20D_LIVE_SUPPORT_PQ_AQ_RESET";
constexpr char kConfig[] = "FFFFFF_LIVE_SUPPORT_GET_DEVICE_CONFIG";
constexpr char kDate[] = "FFFFFF_LIVE_SUPPORT_SET_DATE_TIME";
constexpr char kNetwork[] = "B7E20D_LIVE_SUPPORT_NORVIK_NETWORK_DIAGNOSTIC";

// Every command that changes the television, with what it must have done.
struct Change {
  const char* name;
  const char* inputs;
  std::function<void(TvState&)> before;  // may be null
  std::function<void(const TvState&, const LumJson::Value& data)> check;
};

const std::vector<Change>& Changes() {
  static const std::vector<Change> changes = {
      {kPictureTool,
       R"({"PICTURE_MODE":"Cinema","COLOUR_SATURATION":70,"OVERSCAN":true})",
       {},
       [](const TvState& tv, const LumJson::Value& data) {
         EXPECT_EQ("Cinema", tv.pictureMode.value);
         EXPECT_EQ(70, tv.colourSaturation);
         EXPECT_TRUE(tv.overscan);
         ASSERT_EQ(3u, data["CHANGES"].size());
         EXPECT_EQ(R"({"CURRENT":"Cinema","PREVIOUS":"Standard","REQUESTED":"Cinema",)"
                   R"("SETTING":"PICTURE_MODE","TV_RESULT":0})",
                   Compact(data["CHANGES"][0]));
       }},
      {kSoundTool,
       R"({"VOLUME":40,"MUTE_STATUS":"Mute","SOUND_MODE":"Music"})",
       {},
       [](const TvState& tv, const LumJson::Value&) {
         EXPECT_EQ(40, tv.volume);
         EXPECT_EQ("Mute", tv.mute.value);
         EXPECT_EQ("Music", tv.soundMode.value);
       }},
      {kDtvTool,
       R"({"SUBTITLE":"German","HBBTV":true,"ENHANCED_ACR":1})",
       {},
       [](const TvState& tv, const LumJson::Value&) {
         EXPECT_EQ("German", tv.subtitle.value);
         EXPECT_TRUE(tv.hbbtv);
         EXPECT_EQ(1, tv.enhancedAcrState);
       }},
      {kSource,
       R"({"SOURCE":"HDMI1"})",
       {},
       [](const TvState& tv, const LumJson::Value& data) {
         EXPECT_EQ("HDMI1", tv.source);
         EXPECT_EQ(R"({"CURRENT":"HDMI1","PREVIOUS":"TV","REQUESTED":"HDMI1","TV_RESULT":0})",
                   Compact(data));
       }},
      {kButton,
       R"({"KEY":"SVC_NETFLIX"})",
       {},
       [](const TvState& tv, const LumJson::Value& data) {
         EXPECT_EQ(std::vector<std::string>{"KEY_NETFLIX"}, tv.keyLog);
         EXPECT_EQ("KEY_NETFLIX", data["PLATFORM_KEY"].asString());
       }},
      {kFactoryReset, R"({"CONFIRM":true})", [](TvState& tv) { tv.volume = 80; },
       [](const TvState& tv, const LumJson::Value&) {
         EXPECT_EQ(1, tv.factoryResets);
         EXPECT_EQ(TvState::Factory().volume, tv.volume);
       }},
      {kReturn, R"({"CONFIRM":true})", [](TvState& tv) { tv.protectUserData = false; },
       [](const TvState& tv, const LumJson::Value& data) {
         EXPECT_EQ(1, tv.aqpqResets);
         EXPECT_EQ(1, tv.factoryResets);
         EXPECT_EQ(tv.serial, data["RETURN_RECORD"]["SERIAL_NUMBER"].asString());
       }},
      {kReturn, R"({"CONFIRM":true})", [](TvState& tv) { tv.protectUserData = true; },
       [](const TvState& tv, const LumJson::Value& data) {
         EXPECT_EQ(0, tv.factoryResets);
         EXPECT_TRUE(data["STEPS"][1].isMember("SKIPPED"));
       }},
      {kOta,
       "{}",
       {},
       [](const TvState& tv, const LumJson::Value&) { EXPECT_EQ(1, tv.otaStarts); }},
      {kReset, "{}", [](TvState& tv) { tv.pictureMode.value = "Game"; },
       [](const TvState& tv, const LumJson::Value& data) {
         EXPECT_EQ(1, tv.aqpqResets);
         EXPECT_EQ("Standard", data["PICTURE_SETTINGS"]["PICTURE_MODE"].asString());
       }},
      {kRestore, "{}", [](TvState& tv) { tv.soundMode.value = "Music"; },
       [](const TvState& tv, const LumJson::Value& data) {
         EXPECT_EQ(1, tv.aqpqRestores);
         EXPECT_EQ(TvState::Factory().soundMode.value,
                   data["SOUND_SETTINGS"]["SOUND_MODE"].asString());
       }},
      {"B7E20D_LIVE_SUPPORT_NORVIK_PICTURE_DIAGNOSTIC",
       "{}",
       {},
       [](const TvState& tv, const LumJson::Value& data) {
         EXPECT_EQ(1, tv.pictureInspections);
         EXPECT_EQ(tv.pictureInspectionRespond, data["INSPECTION_RESPONSE"].asString());
       }},
      {"B7E20D_LIVE_SUPPORT_NORVIK_SOUND_DIAGNOSTIC",
       "{}",
       {},
       [](const TvState& tv, const LumJson::Value&) { EXPECT_EQ(1, tv.soundInspections); }},
  };
  return changes;
}

TEST_F(CommandHandlersTest, ChangingCommandsChangeTheTelevisionAndSaySo) {
  for (const Change& change : Changes()) {
    SCOPED_TRACE(std::string(change.name) + " " + change.inputs);
    SimulatedTv::Instance().reset();
    if (change.before) {
      SimulatedTv::Instance().update(change.before);
    }
    const LumJson::Value response = RunText(change.name, "EXECUTE", change.inputs);
    EXPECT_EQ(0, response["RESULT"].asInt()) << response;
    ASSERT_EQ(1u, response["OUTPUTS"].size()) << response;
    EXPECT_EQ("JSON", response["OUTPUTS"][0]["TYPE"].asString());
    change.check(SimulatedTv::Instance().snapshot(), response["OUTPUTS"][0]["DATA"]);
  }
}

// A television that refuses is reported as such (1, with its own answer),
// and nothing changed.
TEST_F(CommandHandlersTest, ARefusingTelevisionIsReported) {
  for (const Change& change : Changes()) {
    SCOPED_TRACE(std::string(change.name) + " " + change.inputs);
    SimulatedTv::Instance().reset();
    SimulatedTv::Instance().update([](TvState& tv) { tv.refuseChanges = true; });
    const std::string before = Fingerprint(SimulatedTv::Instance().snapshot());
    const LumJson::Value response = RunText(change.name, "EXECUTE", change.inputs);
    EXPECT_EQ(1, response["RESULT"].asInt()) << response;
    EXPECT_NE(std::string::npos,
              Compact(response["OUTPUTS"]).find("\":" + std::to_string(LumSim::kRefused)))
        << response;
    EXPECT_EQ(before, Fingerprint(SimulatedTv::Instance().snapshot()));
  }
}

// Inputs are read strictly: anything but what the command declares answers
// 3, appends no output and leaves the television as it was.
TEST_F(CommandHandlersTest, BadInputsAnswer3AndChangeNothing) {
  const std::vector<const char*> noInputs = {
      "FFFFFF_LIVE_SUPPORT_CHECK_FOR_UPDATES",
      "FFFFFF_LIVE_SUPPORT_GET_DEVICE_CAPABILITIES",
      "FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO",
      "B7E20D_LIVE_SUPPORT_NORVIK_PICTURE_DIAGNOSTIC",
      "B7E20D_LIVE_SUPPORT_NORVIK_SOUND_DIAGNOSTIC",
      "B7E20D_LIVE_SUPPORT_NORVIK_HDMI_DIAGNOSTIC",
      "B7E20D_LIVE_SUPPORT_NORVIK_TV_DIAGNOSTIC",
      "B7E20D_LIVE_SUPPORT_NORVIK_BT_DIAGNOSTIC",
      "B7E20D_LIVE_SUPPORT_NORVIK_SYSTEM_INFO_DIAGNOSTIC",
      kOta,
      kRestore,
      kReset,
  };
  struct Bad {
    std::string name;
    const char* operation;
    std::string inputs;
  };
  std::vector<Bad> bad = {
      {kPictureTool, "EXECUTE", "{}"},                                         // nothing to change
      {kPictureTool, "EXECUTE", R"({"PICTURE_MODE":"Ultra"})"},                // not offered
      {kPictureTool, "EXECUTE", R"({"PICTUR_MODE":"Cinema"})"},                // misspelt
      {kPictureTool, "EXECUTE", R"({"PICTURE_MODE":["Cinema"]})"},             // wrong type
      {kPictureTool, "EXECUTE", R"({"PICTURE_MODE":"Cinema","OVERSCAN":1})"},  // one bad of two
      {kPictureTool, "GET", R"({"PICTURE_MODE":"Cinema"})"},                   // GET takes none
      {kSoundTool, "EXECUTE", R"({"VOLUME":"40"})"},
      {kSoundTool, "EXECUTE", R"({"VOLUME":40.5})"},
      {kSoundTool, "EXECUTE", R"({"VOLUME":101})"},
      {kSoundTool, "EXECUTE", R"({"VOLUME":-1})"},
      {kSoundTool, "EXECUTE", R"({"VOLUME":4294967336})"},
      {kSoundTool, "EXECUTE", R"({"MUTE_STATUS":"mute"})"},
      {kDtvTool, "EXECUTE", R"({"ENHANCED_ACR":2})"},
      {kDtvTool, "EXECUTE", R"({"SOURCE":"HDMI1"})"},  // shown, not changed here
      {kSource, "EXECUTE", "{}"},
      {kSource, "EXECUTE", R"({"SOURCE":"HDMI9"})"},
      {kSource, "EXECUTE", R"({"SOURCE":null})"},
      {kButton, "EXECUTE", R"({"KEY":"KEY_HOME"})"},
      {kButton, "EXECUTE", R"({"KEY":"home"})"},
      {kFactoryReset, "EXECUTE", "{}"},
      {kFactoryReset, "EXECUTE", R"({"CONFIRM":false})"},
      {kFactoryReset, "EXECUTE", R"({"CONFIRM":"true"})"},
      {kReturn, "EXECUTE", R"({"CONFIRM":0})"},
      {kConfig, "EXECUTE", "{}"},
      {kConfig, "EXECUTE", R"({"FILE":"../tv.cfg"})"},
      {kConfig, "EXECUTE", R"({"FILE":"/etc/passwd"})"},
      {kConfig, "EXECUTE", R"({"FILE":"tv.cfg","INDEX":-1})"},
      {kDate, "EXECUTE", "{}"},
      {kDate, "EXECUTE", R"({"DATE_TIME":"2024-05-01 12:00:00"})"},
      {kDate, "EXECUTE", R"({"DATE_TIME":"2024-05-01T12:00"})"},
      {kDate, "EXECUTE", R"({"DATE_TIME":1714564800})"},
      {kNetwork, "EXECUTE", R"({"TESTS":"no"})"},
      {kNetwork, "EXECUTE", R"({"PING":"127.0.0.1"})"},
  };
  for (const char* name : noInputs) {
    bad.push_back({name, "EXECUTE", R"({"EXTRA":1})"});
    bad.push_back({name, "EXECUTE", "[]"});
  }
  LumTest::LogCapture log("error");
  const std::string before = Fingerprint(SimulatedTv::Instance().snapshot());
  for (const Bad& request : bad) {
    SCOPED_TRACE(request.name + " " + request.operation + " " + request.inputs);
    const LumJson::Value response = RunText(request.name, request.operation, request.inputs);
    EXPECT_EQ(3, response["RESULT"].asInt()) << response;
    EXPECT_EQ(0u, response["OUTPUTS"].size()) << response;
    EXPECT_EQ(before, Fingerprint(SimulatedTv::Instance().snapshot()));
  }
  EXPECT_TRUE(
      log.logged("B7E20D_LIVE_SUPPORT_PICTURE_DIAGNOSE_TOOL Invalid Parameter PICTUR_MODE: "
                 "not an input of this command"));
  EXPECT_TRUE(
      log.logged("B7E20D_LIVE_SUPPORT_SOUND_SETTINGS Invalid Parameter VOLUME: wrong type"));
}

// A back end builds its forms from DESCRIPTION: a request made from a
// command's description is accepted, and its answer carries an output the
// description names.
TEST_F(CommandHandlersTest, DescriptionsDescribeWhatExecuteAccepts) {
  LumJson::Value request;
  request["REQUESTS"][0]["COMMAND"]["NAME"] = "FFFFFF_LIVE_SUPPORT_GET_AVAILABLE_COMMANDS";
  request["REQUESTS"][0]["INPUTS"] = LumJson::Value(LumJson::objectValue);
  LumJson::Value output;
  Lum::Sv::CommandExecutor::processCommands(request, output);
  const LumJson::Value& commands = output["RESPONSES"][0]["OUTPUTS"][0]["DATA"];
  int described = 0;
  for (const LumJson::Value& command : commands) {
    const std::string name = command["ID"].asString();
    if (!command.isMember("INPUTS") || name.find("NETWORK") != std::string::npos) {
      continue;
    }
    SCOPED_TRACE(name);
    ++described;
    LumJson::Value inputs(LumJson::objectValue);
    for (const LumJson::Value& input : command["INPUTS"]) {
      ASSERT_TRUE(input["ID"].isString() && input["DESCRIPTION"].isString()) << input;
      if (!input["REQUIRED"].asBool() && !command.isMember("AT_LEAST_ONE_INPUT")) {
        continue;
      }
      const std::string type = input["TYPE"].asString();
      LumJson::Value& value = inputs[input["ID"].asString()];
      if (input.isMember("VALUES")) {
        value = input["VALUES"][input["VALUES"].size() - 1];
      } else if (type == "INTEGER") {
        value = input["MAXIMUM"];
      } else if (type == "BOOLEAN") {
        value = true;
      } else {
        value = "tv.cfg";  // the one free text input is a file name
      }
      if (command.isMember("AT_LEAST_ONE_INPUT")) {
        break;
      }
    }
    const LumJson::Value response = Run(name, "EXECUTE", inputs);
    EXPECT_EQ(0, response["RESULT"].asInt()) << inputs << response;
    std::string outputIds;
    for (const LumJson::Value& described : command["OUTPUTS"]) {
      outputIds += described["ID"].asString() + " ";
    }
    EXPECT_NE(std::string::npos, outputIds.find(response["OUTPUTS"][0]["ID"].asString() + " "))
        << outputIds << response;
  }
  EXPECT_EQ(16, described);
}

// The configuration files come from wherever the platform says; what is
// read there is bounded, whatever it is.
TEST_F(CommandHandlersTest, ConfigurationFilesAreReadBoundedAndNeverFollowed) {
  static std::string path;
  const LumTest::Registration<Lum::Sv::ReadFilePathCallback> where(
      &Lum::Sv::RegGetReadFilePath, [](const std::string&, int) { return path; });
  LumTest::WriteFile(dir_.file("big"), std::string(100 * 1024, 'x'));
  LumTest::WriteFile(dir_.file("binary"), std::string("\x01\x02\xff", 3));
  ASSERT_EQ(0, mkfifo(dir_.file("fifo").c_str(), 0600));
  ASSERT_EQ(0, symlink(dir_.file("big").c_str(), dir_.file("link").c_str()));
  const struct {
    const char* file;
    int result;
    const char* expected;  // in the answer's DATA
  } cases[] = {
      {"big", 0, R"("SIZE":65536,"TRUNCATED":true)"},
      {"binary", 0, R"("CONTENT_BASE64":"AQL/")"},
      {"fifo", 1, R"("REMOVE_RESULT":0)"},
      {"link", 1, R"("REMOVE_RESULT":0)"},
      {"missing", 1, R"("REMOVE_RESULT":0)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    path = dir_.file(c.file);
    const LumJson::Value response = RunText(kConfig, "EXECUTE", R"({"FILE":"tv.cfg"})");
    EXPECT_EQ(c.result, response["RESULT"].asInt());
    EXPECT_NE(std::string::npos, Compact(response["OUTPUTS"][0]["DATA"]).find(c.expected))
        << response;
  }
}

// Nothing a back end sends reaches a shell: every text input of every
// command, and any other member, carrying shell syntax that would leave a
// mark if a shell ever saw it.
TEST_F(CommandHandlersTest, NoTextFromTheBackEndReachesAShell) {
  const std::string marker = dir_.file("ran");
  const std::vector<std::string> payloads = {
      "$(touch " + marker + ")",    "`touch " + marker + "`",    "; touch " + marker,
      "| touch " + marker,          "&& touch " + marker + " #", "\ntouch " + marker,
      "'; touch " + marker + "; '", "127.0.0.1; touch " + marker};
  std::set<std::string> textInputs = {"DATE_TIME", "FILE", "X"};
  LumJson::Value list;
  list["REQUESTS"][0]["COMMAND"]["NAME"] = "FFFFFF_LIVE_SUPPORT_GET_AVAILABLE_COMMANDS";
  list["REQUESTS"][0]["INPUTS"] = LumJson::Value(LumJson::objectValue);
  LumJson::Value output;
  Lum::Sv::CommandExecutor::processCommands(list, output);
  std::vector<std::string> names;
  for (const LumJson::Value& command : output["RESPONSES"][0]["OUTPUTS"][0]["DATA"]) {
    names.push_back(command["ID"].asString());
    for (const LumJson::Value& input : command["INPUTS"]) {
      if (input["TYPE"] == "STRING") {
        textInputs.insert(input["ID"].asString());
      }
    }
  }
  ASSERT_EQ(30u, names.size());
  ASSERT_GE(textInputs.size(), 16u);
  const uint64_t shellRuns = Lum::Sv::System::ShellRuns();
  for (const std::string& name : names) {
    for (const char* operation : {"EXECUTE", "GET"}) {
      for (const std::string& input : textInputs) {
        for (const std::string& payload : payloads) {
          LumJson::Value inputs;
          inputs[input] = payload;
          Run(name, operation, inputs);
        }
      }
    }
  }
  EXPECT_EQ(shellRuns, Lum::Sv::System::ShellRuns());
  EXPECT_NE(0, access(marker.c_str(), F_OK));
}

}  // namespace
