#include "Project/CommandForm.h"

#include <algorithm>
#include <utility>

#include "Platform/Logger.h"

LUM_SOURCE_FILE("Project/CommandForm");

namespace Lum {
namespace Sv {

using FP = Core::FilterProperties;

namespace {

constexpr int kSv = FP::SERVICE_SV;

int Refuse(const std::string& command, const char* input, const char* reason) {
  LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "%s Invalid Parameter %s: %s",
          command.c_str(), input, reason);
  return 3;
}

bool HasType(const LumJson::Value& value, InputType type) {
  switch (type) {
    case InputType::Text:
      return value.isString();
    case InputType::Integer:
      return value.isInt();  // excludes 1.5, "1" and values beyond int
    case InputType::Boolean:
      return value.isBool();
  }
  return false;
}

}  // namespace

CommandForm::CommandForm(const char* summary, std::vector<InputField> inputs,
                         std::vector<OutputField> outputs, bool needsAnInput)
    : summary_(summary),
      inputs_(std::move(inputs)),
      outputs_(std::move(outputs)),
      needsAnInput_(needsAnInput) {}

const char* CommandForm::TypeName(InputType type) {
  switch (type) {
    case InputType::Text:
      return "STRING";
    case InputType::Integer:
      return "INTEGER";
    case InputType::Boolean:
      return "BOOLEAN";
  }
  return "STRING";
}

void CommandForm::describe(LumJson::Value& result) const {
  result["DESCRIPTION"] = summary_;
  LumJson::Value& inputs = result["INPUTS"] = LumJson::Value(LumJson::arrayValue);
  for (const InputField& field : inputs_) {
    LumJson::Value& entry = inputs.append(LumJson::Value(LumJson::objectValue));
    entry["ID"] = field.id;
    entry["TYPE"] = TypeName(field.type);
    entry["REQUIRED"] = field.required;
    entry["DESCRIPTION"] = field.text;
    if (field.type == InputType::Integer) {
      entry["MINIMUM"] = field.minimum;
      entry["MAXIMUM"] = field.maximum;
    }
    if (field.choices != nullptr) {
      LumJson::Value& values = entry["VALUES"] = LumJson::Value(LumJson::arrayValue);
      for (const std::string& choice : field.choices()) {
        values.append(choice);
      }
    }
  }
  if (needsAnInput_) {
    result["AT_LEAST_ONE_INPUT"] = true;
  }
  LumJson::Value& outputs = result["OUTPUTS"] = LumJson::Value(LumJson::arrayValue);
  for (const OutputField& field : outputs_) {
    LumJson::Value& entry = outputs.append(LumJson::Value(LumJson::objectValue));
    entry["ID"] = field.id;
    entry["TYPE"] = field.type;
    entry["DESCRIPTION"] = field.text;
  }
}

int CommandForm::check(const std::string& command, const LumJson::Value& inputs) const {
  if (!inputs.isObject()) {
    return Refuse(command, "INPUTS", "not an object");
  }
  for (const std::string& member : inputs.getMemberNames()) {
    const bool declared = std::any_of(inputs_.begin(), inputs_.end(),
                                      [&](const InputField& f) { return member == f.id; });
    if (!declared) {
      return Refuse(command, member.c_str(), "not an input of this command");
    }
  }
  bool anyGiven = false;
  for (const InputField& field : inputs_) {
    if (!inputs.isMember(field.id)) {
      if (field.required) {
        return Refuse(command, field.id, "missing");
      }
      continue;
    }
    anyGiven = true;
    const int code = checkField(command, field, inputs[field.id]);
    if (code != 0) {
      return code;
    }
  }
  if (needsAnInput_ && !anyGiven) {
    return Refuse(command, "INPUTS", "none given");
  }
  return 0;
}

int CommandForm::checkField(const std::string& command, const InputField& field,
                            const LumJson::Value& value) const {
  if (!HasType(value, field.type)) {
    return Refuse(command, field.id, "wrong type");
  }
  if (field.type == InputType::Integer &&
      (value.asInt() < field.minimum || value.asInt() > field.maximum)) {
    return Refuse(command, field.id, "out of range");
  }
  if (field.choices != nullptr) {
    const std::vector<std::string> choices = field.choices();
    if (std::find(choices.begin(), choices.end(), value.asString()) == choices.end()) {
      return Refuse(command, field.id, "not one of the values the television offers");
    }
  }
  return 0;
}

}  // namespace Sv
}  // namespace Lum
