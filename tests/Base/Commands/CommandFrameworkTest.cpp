#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Base/CommandDescriptor.h"
#include "Base/CommandExecutor.h"
#include "Platform/JsonUtil.h"
#include "Project/CommandManager.h"
#include "support/LogCapture.h"

namespace {

using Lum::Core::JsonUtil;
using Lum::Sv::CommandBase;
using Lum::Sv::CommandExecutor;
using Lum::Sv::CommandManager;
using Lum::Sv::CommandOperation;

constexpr char kCommands[] = "FFFFFF_LIVE_SUPPORT_GET_AVAILABLE_COMMANDS";
constexpr char kLocales[] = "FFFFFF_LIVE_SUPPORT_COMMAND_GET_AVAILABLE_LOCALES";

// Any JSON text, scalars at the top included (unlike the agent's strict reader).
LumJson::Value Parse(const std::string& text) {
  LumJson::Value value;
  const std::unique_ptr<LumJson::CharReader> reader(LumJson::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
  return value;
}

LumJson::Value Process(const LumJson::Value& request) {
  LumJson::Value output(LumJson::arrayValue);  // replaced, whatever it held
  CommandExecutor::processCommands(request, output);
  return output;
}

// What GET_AVAILABLE_COMMANDS lists; null when it is not found.
LumJson::Value AvailableCommands() {
  return Process(Parse(std::string(R"({"REQUESTS":[{"COMMAND":{"NAME":")") + kCommands +
                       R"("},"INPUTS":{}}]})"))["RESPONSES"][0]["OUTPUTS"][0]["DATA"];
}

// A handler whose result and code each test sets; a negative code throws.
LumJson::Value scriptedResult;
int scriptedCode = 0;

class ScriptedHandler : public Lum::Sv::CommandHandler {
 public:
  using CommandHandler::CommandHandler;
  int executeHandler(const LumJson::Value&, LumJson::Value& result) override { return run(result); }
  int getHandler(const LumJson::Value&, LumJson::Value& result) override { return run(result); }
  int descriptionHandler(LumJson::Value& result) override { return run(result); }

 private:
  static int run(LumJson::Value& result) {
    result = scriptedResult;
    return scriptedCode >= 0 ? scriptedCode : throw std::runtime_error("scripted failure");
  }
};

class CommandFrameworkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CommandManager::Instance()->initialize("op", "in", "id", "mo", "br", "es", "ma", "sw");
  }
  void TearDown() override { CommandManager::Instance()->terminate(); }
};

TEST_F(CommandFrameworkTest, AnswersEveryRequestOfATaskInOrder) {
  const std::string locales = std::string(R"({"COMMAND":{"NAME":")") + kLocales + "\"";
  const std::string params = R"({"COMMAND":{"NAME":"FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_PARAMS")";
  const std::string answer =
      R"([{"DATA":{"Accept-Language":"en-US,","DEFAULT_LOCALE":"en-US"},"ID":"RESPONSE_DATA",)"
      R"("LOCALE":"en-US","TYPE":"JSON"}])";
  const std::string deep = std::string(900, '[') + std::string(900, ']');
  const struct {
    std::string element;
    int result;
    std::string outputs;
  } cases[] = {
      {R"({"COMMAND":{"NAME":"NO_SUCH","OPERATION":"GET","VERSION":0},"INPUTS":{}})", 0, "[]"},
      {locales + R"(,"VERSION":3},"INPUTS":{"x":[1]}})", 0, answer},
      {locales + R"(,"OPERATION":"DESCRIPTION"},"INPUTS":{}})", 4, "[]"},
      {locales + R"(,"OPERATION":"GET"},"INPUTS":{}})", 4, "[]"},
      {locales + R"(,"OPERATION":"execute"},"INPUTS":{}})", 4, "[]"},
      {locales + "}}", 3, "[]"},  // absent inputs are not an object
      {locales + "},\"INPUTS\":" + deep + "}", 3, "[]"},
      {params + R"(,"OPERATION":"DESCRIPTION"},"INPUTS":[]})", 5, "[]"},
      {params + R"(,"OPERATION":"GET"},"INPUTS":{}})", 5, "[]"},
      {params + R"(,"OPERATION":"GET"},"INPUTS":[]})", 3, "[]"},
      // Malformed requests answer 3, their "COMMAND" echoed as it came.
      {"7", 3, "[]"},
      {R"({"INPUTS":{}})", 3, "[]"},
      {R"({"COMMAND":"x","INPUTS":{}})", 3, "[]"},
      {R"({"COMMAND":{"NAME":7},"INPUTS":{}})", 3, "[]"},
      {R"({"COMMAND":{"OPERATION":"GET"},"INPUTS":{}})", 3, "[]"},
      {locales + R"(,"VERSION":-1},"INPUTS":{}})", 3, "[]"},
      {locales + R"(,"OPERATION":1},"INPUTS":{}})", 3, "[]"},
  };
  std::string requests;
  for (const auto& c : cases) {
    requests += (requests.empty() ? "" : ",") + c.element;
  }
  const LumJson::Value output =
      Process(Parse(R"({"SESSION_ID":"s","TASK_ID":"t","REQUESTS":[)" + requests + "]}"));
  ASSERT_EQ(std::vector<std::string>{"RESPONSES"}, output.getMemberNames());
  ASSERT_EQ(std::size(cases), output["RESPONSES"].size());
  for (LumJson::ArrayIndex i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(cases[i].element.substr(0, 100));
    const LumJson::Value& response = output["RESPONSES"][i];
    const LumJson::Value element = Parse(cases[i].element);
    EXPECT_EQ(3u, response.size());
    EXPECT_EQ(element.isObject() ? element["COMMAND"] : LumJson::Value(), response["COMMAND"]);
    EXPECT_EQ(LumJson::Value(cases[i].result), response["RESULT"]);
    EXPECT_EQ(cases[i].outputs, JsonUtil::WriteCompact(response["OUTPUTS"]));
  }
  for (const char* text : {R"({"REQUESTS":[]})", R"({"REQUESTS":{"a":{}}})", "[[]]", "null"}) {
    EXPECT_EQ(R"({"RESPONSES":[]})", JsonUtil::WriteCompact(Process(Parse(text)))) << text;
  }
}

TEST_F(CommandFrameworkTest, ListsEveryCommandWithItsAttributesAndChecksItsInputs) {
  LumTest::LogCapture log("debug");
  const LumJson::Value listed = AvailableCommands();
  ASSERT_EQ(30u, listed.size());
  for (LumJson::ArrayIndex i = 0; i < listed.size(); ++i) {
    const std::string name = listed[i]["ID"].asString();
    // A command's own description adds at least "DESCRIPTION", "INPUTS" and
    // "OUTPUTS" to the four members every entry has.
    const bool described = listed[i].isMember("DESCRIPTION");
    EXPECT_EQ(described, listed[i].size() >= 7u) << listed[i];
    EXPECT_TRUE(described || listed[i].size() == 4u) << listed[i];
    EXPECT_TRUE(i == 0 || listed[i - 1]["ID"].asString() < name);
    EXPECT_EQ(std::string::npos, JsonUtil::WriteCompact(listed[i]["OPERATIONS"]).find("DESC"));
    // Inputs must be an object but for the LBR look-up.
    LumJson::Value request;
    request["REQUESTS"][0]["COMMAND"]["NAME"] = name;
    request["REQUESTS"][0]["INPUTS"] = LumJson::Value(LumJson::arrayValue);
    EXPECT_EQ(LumJson::Value(name == "FFFFFF_LIVE_SUPPORT_COMMAND_LBR_LOOKUP" ? 0 : 3),
              Process(request)["RESPONSES"][0]["RESULT"])
        << name;
  }
  const struct {
    const char* name;
    int type, version, time;
    std::string operations;
  } rows[] = {
      {kCommands, 1, 0, 0, R"(["EXECUTE"])"},
      {"FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_VIDEO_LAYERS", 1, 1, 250, R"(["EXECUTE","GET"])"},
      {"B7E20D_LIVE_SUPPORT_NORVIK_NETWORK_DIAGNOSTIC", 2, 0, 30000, R"(["EXECUTE"])"},
      {"B7E20D_LIVE_SUPPORT_SOUND_SETTINGS", 3, 0, 500, R"(["EXECUTE","GET"])"},
      {"B7E20D_LIVE_SUPPORT_OTA_TOOL", 3, 0, 10000, R"(["EXECUTE"])"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto entry = std::find_if(listed.begin(), listed.end(),
                                    [&](const LumJson::Value& e) { return e["ID"] == row.name; });
    ASSERT_NE(listed.end(), entry);
    EXPECT_EQ(LumJson::Value(row.version), (*entry)["VERSION"]);
    EXPECT_EQ(LumJson::Value(row.time), (*entry)["ESTIMATED_EXEC_TIME_MSEC"]);
    EXPECT_EQ(row.operations, JsonUtil::WriteCompact((*entry)["OPERATIONS"]));
    const CommandBase* command = nullptr;
    ASSERT_TRUE(CommandManager::Instance()->lookupCommand(row.name, command) && command);
    EXPECT_EQ(row.type, command->type());
    EXPECT_EQ("", command->friendlyNameKey() + command->friendlyDescriptionKey());
  }
  // The screen video commands have no handler yet, so no description.
  const std::string params = "FFFFFF_LIVE_SUPPORT_MEDIA_STREAM_PARAMS";
  EXPECT_TRUE(log.logged("Calling command " + params + " to get description."));
  EXPECT_TRUE(log.logged("Failed to retrieve command description for command " + params + "."));
  EXPECT_TRUE(
      log.logged(std::string("Command ") + kCommands + " does not have a command description."));
  EXPECT_TRUE(log.logged(std::string(kLocales) + " Invalid Parameter for inputs"));
}

// The output element rule, for every operation that appends, and which
// descriptions GET_AVAILABLE_COMMANDS keeps: only an object produced with 0.
TEST_F(CommandFrameworkTest, HandlerResultsBecomeOutputsAndDescriptions) {
  LumTest::LogCapture log("error");
  const Lum::Sv::CommandDescriptor<ScriptedHandler> all({"TEST_CMD", "Test", 3, 2, 9, 7});
  const Lum::Sv::CommandDescriptor<ScriptedHandler> noDescription({"TEST_CMD", "T", 3, 2, 9, 3});
  const std::unique_ptr<Lum::Sv::CommandHandler> handler = all.create();
  enum Appended { kNothing, kAsItIs, kWrapped };
  const struct {
    std::string result;
    int code;  // -1: the handler throws
    Appended appended;
    bool described;
  } cases[] = {
      {R"({"ID":"X","TYPE":"T","DATA":1})", 0, kAsItIs, true},
      {R"({"ID":"X","TYPE":"T","DATA":{},"b":2})", 7, kAsItIs, false},
      {R"({"a":1})", 0, kWrapped, true},
      {R"({"ID":"X","TYPE":"T"})", 0, kWrapped, true},
      {R"({"ID":"X","DATA":1})", 0, kWrapped, true},
      {R"({"TYPE":"T","DATA":1})", 0, kWrapped, true},
      {"[0]", 0, kWrapped, false},
      {R"("")", 5, kWrapped, false},
      {"{}", 0, kNothing, true},
      {"null", 5, kNothing, false},
      {R"({"a":1})", -1, kNothing, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.result + " " + std::to_string(c.code));
    scriptedResult = Parse(c.result);
    scriptedCode = c.code;
    const std::string data = JsonUtil::WriteCompact(scriptedResult);
    const std::string expected =
        c.appended == kNothing ? "[]"
        : c.appended == kAsItIs
            ? "[" + data + "]"
            : R"([{"DATA":)" + data + R"(,"ID":"RESPONSE_DATA","TYPE":"JSON"}])";
    for (const CommandOperation operation :
         {Lum::Sv::EXECUTE, Lum::Sv::GET, Lum::Sv::DESCRIPTION}) {
      LumJson::Value outputs(LumJson::arrayValue);
      if (c.code >= 0) {
        EXPECT_EQ(c.code,
                  handler->performOperation({"TEST_CMD", operation, 0}, Parse("{}"), outputs));
        EXPECT_EQ(expected, JsonUtil::WriteCompact(outputs));
      }
    }
    for (const CommandBase* descriptor : {&all, &noDescription}) {
      LumJson::Value entry(c.described && descriptor == &all ? scriptedResult : LumJson::Value());
      entry["ID"] = "TEST_CMD";
      entry["VERSION"] = 2;
      entry["ESTIMATED_EXEC_TIME_MSEC"] = 9;
      entry["OPERATIONS"] = Parse(R"(["EXECUTE","GET"])");
      EXPECT_EQ(entry, CommandManager::DescribeCommand(*descriptor));
    }
  }
  LumJson::Value notArray(LumJson::objectValue);
  EXPECT_EQ(3, handler->execute(Parse("{}"), notArray));
  EXPECT_EQ(4,
            handler->performOperation({"TEST_CMD", Lum::Sv::SESSION_TERMINATE, 0}, {}, notArray));
  EXPECT_TRUE(log.logged("TEST_CMD Invalid Parameter for outputs"));
  EXPECT_TRUE(log.logged("TEST_CMD operation not supported"));
  LumJson::Value names = Parse(R"(["stale"])");
  CommandManager::convertOperationsToStrings(CommandOperation(0x17), names);
  EXPECT_EQ(R"(["EXECUTE","GET","SESSION_TERMINATE"])", JsonUtil::WriteCompact(names));
}

// Requests and responses are printed at debug level when their indented text
// is at most 2048 bytes.
TEST_F(CommandFrameworkTest, PrintsRequestsUpTo2048Bytes) {
  auto element = [](size_t padding) {
    LumJson::Value request = Parse(R"({"COMMAND":{"NAME":"NO_SUCH"}})");
    request["INPUTS"]["p"] = std::string(padding, 'x');
    return request;
  };
  const size_t base = LumJson::writeString(LumJson::StreamWriterBuilder(), element(0)).size();
  for (const size_t size : {size_t{2048}, size_t{2049}}) {
    LumTest::LogCapture log("debug");
    LumJson::Value response;
    CommandExecutor::processCommand(element(size - base), response);
    const std::string head = "Printing the input JSON (" + std::to_string(size) + " bytes):";
    EXPECT_NE(std::string::npos,
              log.text().find(head + (size > 2048 ? " suppressed due to size..." : "\n{")));
    EXPECT_NE(std::string::npos, log.text().find("Printing the output JSON ("));
  }
}

// Task threads run commands while the agent stops and starts again: the
// registry they use is never freed under them (the sanitizer builds watch).
TEST_F(CommandFrameworkTest, TasksRunWhileTheAgentRestarts) {
  const LumJson::Value request = Parse(std::string(R"({"REQUESTS":[{"COMMAND":{"NAME":")") +
                                       kCommands + R"("},"INPUTS":{}}]})");
  std::atomic<int> done{0}, faults{0};
  std::vector<std::thread> tasks;
  for (int t = 0; t < 4; ++t) {
    tasks.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        const LumJson::Value response = Process(request)["RESPONSES"][0];
        const unsigned listed = response["OUTPUTS"][0]["DATA"].size();  // 0 while withdrawn
        const std::string opid = CommandManager::Instance()->getOpid();
        faults += response["RESULT"] != 0 || (listed != 0 && listed != 30) ||
                  (opid != "" && opid != "op");
      }
      ++done;
    });
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (done < 4 && std::chrono::steady_clock::now() < deadline) {
    CommandManager::Instance()->terminate();
    CommandManager::Instance()->initialize("op", "in", "id", "mo", "br", "es", "ma", "sw");
  }
  for (std::thread& task : tasks) {
    task.join();
  }
  EXPECT_EQ(0, faults);
}

}  // namespace
