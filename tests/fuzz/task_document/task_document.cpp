// A task document as the back end sends it, through the command framework
// and every registered command, against the simulated television.
//
// Input: the document text (the agent parses it with JsonUtil::ParseObject,
// as executeCommand does). The network diagnostic runs only with its DNS,
// ping and speed stages switched off: those would leave the machine.
// Properties: the answer written as the agent sends it parses back as JSON;
// it holds one response per request, each {"COMMAND" as asked, "RESULT" one
// of the documented codes, "OUTPUTS" an array of {"ID", "TYPE", "DATA"}
// elements, the first with "LOCALE"}; a request refused (3, 4 or 5) leaves
// the television as it was and answers no output element; running the same
// requests one by one from the same start answers the same codes.
#include <cstdint>
#include <string>
#include <vector>

#include "Base/CommandExecutor.h"
#include "Platform/JsonUtil.h"
#include "Platform/Logger.h"
#include "Project/CommandManager.h"
#include "SimulatedTv.h"
#include "fuzz/FuzzSupport.h"

using LumFuzz::Fail;
using LumSim::SimulatedTv;
using LumSim::TvState;

namespace {

constexpr char kNetwork[] = "B7E20D_LIVE_SUPPORT_NORVIK_NETWORK_DIAGNOSTIC";

// Whether the network diagnostic could read `id` as switched on: absent
// means on; anything but an explicit false, zero, null or a value it cannot
// read as a flag counts as on.
bool MayBeOn(const LumJson::Value& inputs, const char* id) {
  if (!inputs.isMember(id)) {
    return true;
  }
  const LumJson::Value& value = inputs[id];
  if (value.isBool()) {
    return value.asBool();
  }
  return value.isNumeric() && value.asDouble() != 0;
}

// False when a request of the document could start a ping, a DNS look-up or
// a speed test.
bool StaysOnThisMachine(const LumJson::Value& document) {
  const LumJson::Value* requests = document.find("REQUESTS", "REQUESTS" + 8);
  if (requests == nullptr || !requests->isArray()) {
    return true;
  }
  for (const LumJson::Value& request : *requests) {
    if (!request.isObject()) {
      continue;
    }
    const LumJson::Value* command = request.find("COMMAND", "COMMAND" + 7);
    if (command == nullptr || !command->isObject()) {
      continue;
    }
    const LumJson::Value* name = command->find("NAME", "NAME" + 4);
    if (name == nullptr || !name->isString() || name->asString() != kNetwork) {
      continue;
    }
    const LumJson::Value* inputs = request.find("INPUTS", "INPUTS" + 6);
    if (inputs == nullptr || !inputs->isObject() || MayBeOn(*inputs, "TESTS") ||
        MayBeOn(*inputs, "SPEED_TESTS")) {
      return false;
    }
  }
  return true;
}

std::string Choices(const LumSim::Choice& c) {
  return c.value + ";";
}

std::string Join(const std::vector<std::string>& list) {
  std::string out;
  for (const std::string& item : list) {
    out += item + ",";
  }
  return out + ";";
}

// Everything a command can change on the television or ask it to do.
std::string Fingerprint(const TvState& s) {
  return Choices(s.pictureMode) + Choices(s.colourTemperature) + Choices(s.adaptiveContrast) +
         Choices(s.ultraSmoothMotion) + Choices(s.noiseReduction) +
         std::to_string(s.colourSaturation) + std::to_string(s.overscan) + Choices(s.soundMode) +
         Choices(s.mute) + Choices(s.headphoneMode) + Choices(s.audioOutput) +
         std::to_string(s.volume) + "/" + std::to_string(s.lipSync) + "/" +
         std::to_string(s.speakerArcMode) + Choices(s.subtitle) + Choices(s.audioLanguage) +
         s.source + ";" + std::to_string(s.hbbtv) + std::to_string(s.enhancedAcrState) +
         std::to_string(s.protectUserData) + Join(s.keyLog) + std::to_string(s.factoryResets) +
         "/" + std::to_string(s.otaStarts) + "/" + std::to_string(s.pictureInspections) + "/" +
         std::to_string(s.soundInspections) + "/" + std::to_string(s.aqpqRestores) + "/" +
         std::to_string(s.aqpqResets);
}

bool Documented(int result) {
  return result == 0 || result == 1 || result == 3 || result == 4 || result == 5;
}

void CheckResponse(const LumJson::Value& request, const LumJson::Value& response) {
  if (!response.isObject() || response.size() != 3 || !response["RESULT"].isInt() ||
      !response["OUTPUTS"].isArray() || !response.isMember("COMMAND")) {
    Fail("a response without exactly COMMAND, an integer RESULT and an OUTPUTS array");
  }
  const LumJson::Value* command =
      request.isObject() ? request.find("COMMAND", "COMMAND" + 7) : nullptr;
  if (response["COMMAND"] != (command != nullptr ? *command : LumJson::Value())) {
    Fail("a response whose COMMAND is not the request's");
  }
  const int result = response["RESULT"].asInt();
  if (!Documented(result)) {
    Fail("an undocumented RESULT " + std::to_string(result));
  }
  const LumJson::Value& outputs = response["OUTPUTS"];
  if ((result == 3 || result == 4 || result == 5) && !outputs.empty()) {
    Fail("a refused request answered output elements");
  }
  for (LumJson::ArrayIndex i = 0; i < outputs.size(); ++i) {
    const LumJson::Value& element = outputs[i];
    if (!element.isObject() || !element["ID"].isString() || !element["TYPE"].isString() ||
        !element.isMember("DATA") || element.isMember("LOCALE") != (i == 0) ||
        (i == 0 && element["LOCALE"] != "en-US")) {
      Fail("an output element that is not {ID, TYPE, DATA} (LOCALE on the first): " +
           Lum::Core::JsonUtil::WriteCompact(element));
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  LumFuzz::FixedClock::Install();
  Lum::Core::Logger::Instance().initialize(LumJson::Value(LumJson::arrayValue));
  SimulatedTv& tv = SimulatedTv::Instance();
  if (!tv.setFileDirectory(LumFuzz::WorkDir() + "tv")) {
    Fail("cannot prepare the television's files");
  }
  tv.install();
  Lum::Sv::CommandManager::Instance()->initialize("acme", "inst", "DEV-1", "LT-55", "Acme", "ESN-1",
                                                  "00:11:22:33:44:55", "1.0.0");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  LumJson::Value document;
  if (!Lum::Core::JsonUtil::ParseObject(std::string(reinterpret_cast<const char*>(data), size),
                                        document) ||
      !StaysOnThisMachine(document)) {
    return 0;
  }
  SimulatedTv& tv = SimulatedTv::Instance();
  tv.reset();
  LumJson::Value output;
  Lum::Sv::CommandExecutor::processCommands(document, output);

  // What the agent sends must read back as the same answer (compared as
  // text: 1 read back is signed whatever it was built as).
  const std::string sent = Lum::Core::JsonUtil::WriteCompact(output);
  LumJson::Value received;
  if (!Lum::Core::JsonUtil::ParseObject(sent, received) ||
      Lum::Core::JsonUtil::WriteCompact(received) != sent) {
    Fail("the answer does not read back as itself: " + sent);
  }
  const LumJson::Value* requests = document.find("REQUESTS", "REQUESTS" + 8);
  const LumJson::Value& responses = output["RESPONSES"];
  if (output.size() != 1 || !responses.isArray() ||
      responses.size() != (requests != nullptr && requests->isArray() ? requests->size() : 0)) {
    Fail("not one response per request: " + sent);
  }
  if (responses.empty()) {
    return 0;
  }
  // Once more, one request at a time, watching the television.
  tv.reset();
  for (LumJson::ArrayIndex i = 0; i < requests->size(); ++i) {
    const LumJson::Value& request = (*requests)[i];
    CheckResponse(request, responses[i]);
    const std::string before = Fingerprint(tv.snapshot());
    LumJson::Value response;
    Lum::Sv::CommandExecutor::processCommand(request, response);
    const int result = response["RESULT"].asInt();
    if (result != responses[i]["RESULT"].asInt()) {
      Fail("the same requests answered differently the second time: " +
           Lum::Core::JsonUtil::WriteCompact(response));
    }
    if ((result == 3 || result == 4 || result == 5) && Fingerprint(tv.snapshot()) != before) {
      Fail("a refused request changed the television: " +
           Lum::Core::JsonUtil::WriteCompact(response));
    }
  }
  return 0;
}
