#include "Base/CommandExecutor.h"

#include <memory>
#include <string>
#include <utility>

#include "Base/CommandBase.h"
#include "Base/CommandContext.h"
#include "Base/CommandHandler.h"
#include "Platform/ExceptionBarrier.h"
#include "Platform/Logger.h"
#include "Project/CommandManager.h"

LUM_SOURCE_FILE("Base/CommandExecutor");

namespace Lum {
namespace Sv {

using Core::Logger;
using FP = Core::FilterProperties;

namespace {

constexpr int kSv = FP::SERVICE_SV;
constexpr size_t kMaxPrintedBytes = 2048;

const LumJson::Value* Member(const LumJson::Value& object, const char* key) {
  return object.isObject() ? object.find(key, key + std::char_traits<char>::length(key)) : nullptr;
}

CommandOperation OperationFromText(const std::string& text) {
  if (text.empty() || text == "EXECUTE") {
    return EXECUTE;
  }
  if (text == "GET") {
    return GET;
  }
  if (text == "DESCRIPTION") {
    return DESCRIPTION;
  }
  if (text == "SESSION_TERMINATE") {
    return SESSION_TERMINATE;
  }
  return CommandOperation(0);
}

// Fills `context` from the request's "COMMAND"; false when the request does
// not have the shape of one.
bool ReadContext(const LumJson::Value* command, CommandContext& context) {
  if (command == nullptr || !command->isObject()) {
    return false;
  }
  const LumJson::Value* name = Member(*command, "NAME");
  const LumJson::Value* operation = Member(*command, "OPERATION");
  const LumJson::Value* version = Member(*command, "VERSION");
  if (name == nullptr || !name->isString() || (operation != nullptr && !operation->isString()) ||
      (version != nullptr && !version->isUInt())) {
    return false;
  }
  context.name = name->asString();
  context.operation = OperationFromText(operation != nullptr ? operation->asString() : "");
  context.version = version != nullptr ? version->asUInt() : 0;
  return true;
}

// Only written when debug logging is on for the support view: a request can
// be large, and the device's CPU is weak.
void Print(const char* what, const LumJson::Value& value) {
  if (!Logger::Instance().test(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG)) {
    return;
  }
  const LumJson::StreamWriterBuilder indenting;
  const std::string text = LumJson::writeString(indenting, value);
  if (text.size() <= kMaxPrintedBytes) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "Printing the %s JSON (%zu bytes):\n%s",
            what, text.size(), text.c_str());
  } else {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG,
            "Printing the %s JSON (%zu bytes): suppressed due to size...", what, text.size());
  }
}

int Run(const CommandContext& context, const LumJson::Value& inputs, LumJson::Value& outputs) {
  const CommandBase* descriptor = nullptr;
  if (!CommandManager::Instance()->lookupCommand(context.name, descriptor)) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Command Name not found!");
    return 0;
  }
  if (descriptor == nullptr) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Command Handler not found!");
    return 0;
  }
  const std::unique_ptr<CommandHandler> handler = descriptor->create();
  if (handler == nullptr) {
    return 0;
  }
  return handler->performOperation(context, inputs, outputs);
}

}  // namespace

void CommandExecutor::processCommands(const LumJson::Value& request, LumJson::Value& output) {
  LUM_TRACE(kSv);
  output = LumJson::Value(LumJson::objectValue);
  LumJson::Value& responses = output["RESPONSES"] = LumJson::Value(LumJson::arrayValue);
  const LumJson::Value* requests = Member(request, "REQUESTS");
  if (requests == nullptr || !requests->isArray()) {
    return;
  }
  for (const LumJson::Value& element : *requests) {
    processCommand(element, responses.append(LumJson::Value(LumJson::objectValue)));
  }
}

void CommandExecutor::processCommand(const LumJson::Value& request, LumJson::Value& response) {
  LUM_TRACE(kSv);
  Print("input", request);
  const LumJson::Value* command = Member(request, "COMMAND");
  const LumJson::Value* inputs = Member(request, "INPUTS");
  LumJson::Value outputs(LumJson::arrayValue);
  int result = kInvalidParameter;
  CommandContext context;
  if (!ReadContext(command, context)) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "Malformed command request");
  } else if (!Core::ExceptionBarrier::Run("processCommand", [&] {
               result = Run(context, inputs != nullptr ? *inputs : LumJson::Value::nullSingleton(),
                            outputs);
             })) {
    // What a failed command left behind cannot be trusted.
    result = kNotImplemented;
    outputs = LumJson::Value(LumJson::arrayValue);
  }
  if (!outputs.empty() && outputs[0].isObject()) {
    outputs[0]["LOCALE"] = "en-US";
  }
  response = LumJson::Value(LumJson::objectValue);
  response["COMMAND"] = command != nullptr ? *command : LumJson::Value();
  response["RESULT"] = result;
  response["OUTPUTS"] = std::move(outputs);
  Print("output", response);
}

}  // namespace Sv
}  // namespace Lum
