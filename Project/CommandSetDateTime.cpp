#include "Project/CommandSetDateTime.h"

#include "Platform/Time.h"

namespace Lum {
namespace Sv {

namespace {

const CommandForm& Form() {
  static const CommandForm form(
      "Sets the television's clock",
      {{"DATE_TIME", InputType::Text, true, "UTC time as 2024-05-01T12:00:00Z"}},
      {{"DATE_TIME", "JSON",
        "REQUESTED, PREVIOUS, RESULT (0: set; 1: the clock refused; 3: not a time), CURRENT"}});
  return form;
}

}  // namespace

CommandSetDateTime::CommandSetDateTime(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "DATE_TIME") {}

int CommandSetDateTime::run(const LumJson::Value& inputs, LumJson::Value& data) {
  const std::string requested = inputs["DATE_TIME"].asString();
  data["REQUESTED"] = requested;
  data["PREVIOUS"] = Time::GetCurrentDateTime();
  const int result = Time::SetCurrentDateTime(requested);
  data["RESULT"] = result;
  data["CURRENT"] = Time::GetCurrentDateTime();
  return result;  // 0, 1 or 3, as the command's own codes
}

}  // namespace Sv
}  // namespace Lum
