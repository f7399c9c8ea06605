#include "Project/CommandFormHandler.h"

#include <utility>

#include "Base/CommandBase.h"

namespace Lum {
namespace Sv {

CommandFormHandler::CommandFormHandler(const CommandBase& descriptor, const CommandForm& form,
                                       const char* outputId)
    : CommandHandler(descriptor), form_(form), outputId_(outputId) {}

int CommandFormHandler::descriptionHandler(LumJson::Value& result) {
  form_.describe(result);
  return kCommandSuccess;
}

int CommandFormHandler::executeHandler(const LumJson::Value& inputs, LumJson::Value& result) {
  const int refused = form_.check(descriptor().name(), inputs);
  if (refused != kCommandSuccess) {
    return refused;
  }
  LumJson::Value data(LumJson::objectValue);
  const int code = run(inputs, data);
  // An input the form could not judge alone (a confirmation that is false)
  // is refused like any other: without an answer.
  if (code != kInvalidParameter) {
    answer(data, result);
  }
  return code;
}

void CommandFormHandler::answer(LumJson::Value& data, LumJson::Value& result) const {
  result = LumJson::Value(LumJson::objectValue);
  result["ID"] = outputId_;
  result["TYPE"] = "JSON";
  result["DATA"] = std::move(data);
}

}  // namespace Sv
}  // namespace Lum
