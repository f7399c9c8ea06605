#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Base/CommandExecutor.h"
#include "Platform/Clock.h"
#include "Platform/JsonUtil.h"
#include "Project/CommandManager.h"
#include "SimulatedTv.h"
#include "support/TestSupport.h"

// The command reference (docs/commands.md) shows for every command an
// example task and the answer the simulated television gives. This test runs
// every example and compares: the reference cannot drift from the code.
namespace {

using LumSim::SimulatedTv;

constexpr char kVaries[] = "<varies>";  // in a documented answer: any value

struct Example {
  std::string task;
  std::string answer;
  int line;
};

std::vector<Example> ReadExamples(const std::string& path) {
  std::ifstream in(path);
  std::vector<Example> examples;
  std::string line;
  std::string* block = nullptr;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    if (line == "```json task") {
      examples.push_back({"", "", number});
      block = &examples.back().task;
    } else if (line == "```json answer" && !examples.empty()) {
      block = &examples.back().answer;
    } else if (line == "```") {
      block = nullptr;
    } else if (block != nullptr) {
      *block += line + "\n";
    }
  }
  return examples;
}

LumJson::Value Parse(const std::string& text, int line) {
  LumJson::Value value;
  const std::unique_ptr<LumJson::CharReader> reader(LumJson::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr))
      << "line " << line << ": " << text;
  return value;
}

// Whether `actual` is `documented`, a documented "<varies>" matching
// anything.
bool Matches(const LumJson::Value& documented, const LumJson::Value& actual) {
  if (documented.isString() && documented.asString() == kVaries) {
    return true;
  }
  // Written down, 1 is 1 whether the agent built it signed or not.
  if (documented.isNumeric() && actual.isNumeric()) {
    return documented.asDouble() == actual.asDouble();
  }
  if (documented.type() != actual.type() || documented.size() != actual.size()) {
    return false;
  }
  if (documented.isObject()) {
    for (const std::string& name : documented.getMemberNames()) {
      if (!actual.isMember(name) || !Matches(documented[name], actual[name])) {
        return false;
      }
    }
    return true;
  }
  if (documented.isArray()) {
    for (LumJson::ArrayIndex i = 0; i < documented.size(); ++i) {
      if (!Matches(documented[i], actual[i])) {
        return false;
      }
    }
    return true;
  }
  return documented == actual;
}

// The clock the examples set, so that no test sets the machine's.
class RecordingClock : public Lum::Core::Clock {
 public:
  int setWall(const timeval&) const override { return 0; }
};

TEST(CommandReferenceTest, EveryExampleGivesTheDocumentedAnswer) {
  LumTest::TempDir dir;
  RecordingClock clock;
  Lum::Core::Clock::Set(&clock);
  SimulatedTv& tv = SimulatedTv::Instance();
  ASSERT_TRUE(tv.setFileDirectory(dir.file("tv")));
  tv.install();
  Lum::Sv::CommandManager::Instance()->initialize("acme", "inst", "DEV-1", "LT-55", "Acme", "ESN-1",
                                                  "00:11:22:33:44:55", "1.0.0");
  const std::vector<Example> examples =
      ReadExamples(std::string(LUM_SOURCE_DIR) + "/docs/commands.md");
  // Writes what the examples answer today, for updating the reference.
  const char* const dump = std::getenv("LUM_COMMAND_EXAMPLES_OUT");
  LumJson::Value answers(LumJson::arrayValue);
  std::set<std::string> commands;
  for (const Example& example : examples) {
    SCOPED_TRACE("docs/commands.md line " + std::to_string(example.line));
    tv.reset();
    LumJson::Value request;
    request["REQUESTS"].append(Parse(example.task, example.line));
    LumJson::Value output;
    Lum::Sv::CommandExecutor::processCommands(request, output);
    const LumJson::Value& actual = output["RESPONSES"][0];
    answers.append(actual);
    commands.insert(actual["COMMAND"]["NAME"].asString());
    EXPECT_TRUE(Matches(Parse(example.answer, example.line), actual))
        << "today's answer: " << Lum::Core::JsonUtil::WriteCompact(actual);
  }
  if (dump != nullptr) {
    std::ofstream(dump) << answers;
  }
  // Every registered command has an example (the screen video and training
  // remote ones too: they show their answer 5).
  EXPECT_EQ(30u, commands.size());
  tv.uninstall();
  Lum::Sv::CommandManager::Instance()->terminate();
  Lum::Core::Clock::Set(nullptr);
}

}  // namespace
