#include "Base/CommandHandler.h"

#include <string>
#include <utility>

#include "Base/CommandBase.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Base/CommandHandler");

namespace Lum {
namespace Sv {

using FP = Core::FilterProperties;

namespace {

constexpr int kSv = FP::SERVICE_SV;

// Its inputs are not an object but whatever the look-up needs, so this one
// command is spared the check that the inputs are an object.
constexpr char kLbrLookup[] = "FFFFFF_LIVE_SUPPORT_COMMAND_LBR_LOOKUP";

bool IsOutputElement(const LumJson::Value& result) {
  return result.isObject() && result.isMember("ID") && result.isMember("TYPE") &&
         result.isMember("DATA");
}

}  // namespace

CommandHandler::CommandHandler(const CommandBase& descriptor) : descriptor_(descriptor) {}

CommandHandler::~CommandHandler() = default;

int CommandHandler::descriptionHandler(LumJson::Value& /*result*/) {
  return kNotImplemented;
}

int CommandHandler::executeHandler(const LumJson::Value& /*inputs*/, LumJson::Value& /*result*/) {
  return kNotImplemented;
}

int CommandHandler::getHandler(const LumJson::Value& /*inputs*/, LumJson::Value& /*result*/) {
  return kNotImplemented;
}

int CommandHandler::sessionTerminateHandler() {
  return kNotImplemented;
}

int CommandHandler::performOperation(const CommandContext& context, const LumJson::Value& inputs,
                                     LumJson::Value& outputs) {
  LUM_TRACE(kSv);
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_DEBUG, "Performing operation %u of %s",
          static_cast<unsigned>(context.operation), context.name.c_str());
  if ((context.operation & descriptor_.supportedOperations()) == 0) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "%s operation not supported",
            context.name.c_str());
    return kNotSupported;
  }
  switch (context.operation) {
    case DESCRIPTION:
      return description(outputs);
    case EXECUTE:
      return execute(inputs, outputs);
    case GET:
      return get(inputs, outputs);
    case SESSION_TERMINATE:
      return sessionTerminate();
  }
  return 0;
}

int CommandHandler::execute(const LumJson::Value& inputs, LumJson::Value& outputs) {
  LUM_TRACE(kSv);
  const bool anyInputs = descriptor_.name() == kLbrLookup;
  if (!validParameters(anyInputs ? nullptr : &inputs, outputs)) {
    return kInvalidParameter;
  }
  LumJson::Value result(LumJson::objectValue);
  const int code = executeHandler(inputs, result);
  AppendOutput(result, outputs);
  return code;
}

int CommandHandler::get(const LumJson::Value& inputs, LumJson::Value& outputs) {
  LUM_TRACE(kSv);
  if (!validParameters(&inputs, outputs)) {
    return kInvalidParameter;
  }
  LumJson::Value result(LumJson::objectValue);
  const int code = getHandler(inputs, result);
  AppendOutput(result, outputs);
  return code;
}

int CommandHandler::description(LumJson::Value& outputs) {
  LUM_TRACE(kSv);
  if (!validParameters(nullptr, outputs)) {
    return kInvalidParameter;
  }
  LumJson::Value result(LumJson::objectValue);
  const int code = descriptionHandler(result);
  AppendOutput(result, outputs);
  return code;
}

int CommandHandler::sessionTerminate() {
  LUM_TRACE(kSv);
  return sessionTerminateHandler();
}

bool CommandHandler::validParameters(const LumJson::Value* inputs,
                                     const LumJson::Value& outputs) const {
  if (inputs != nullptr && !inputs->isObject()) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "%s Invalid Parameter for inputs",
            descriptor_.name().c_str());
    return false;
  }
  if (!outputs.isArray()) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "%s Invalid Parameter for outputs",
            descriptor_.name().c_str());
    return false;
  }
  return true;
}

void CommandHandler::AppendOutput(LumJson::Value& result, LumJson::Value& outputs) {
  if (result.empty()) {
    return;
  }
  if (IsOutputElement(result)) {
    outputs.append(std::move(result));
    return;
  }
  LumJson::Value& element = outputs.append(LumJson::Value(LumJson::objectValue));
  element["ID"] = "RESPONSE_DATA";
  element["TYPE"] = "JSON";
  element["DATA"] = std::move(result);
}

}  // namespace Sv
}  // namespace Lum
