#include "Project/CommandRemoteButton.h"

#include "Project/NorvikInterfaces.h"
#include "Project/TvValues.h"

namespace Lum {
namespace Sv {

namespace {

const CommandForm& Form() {
  static const CommandForm form(
      "Presses one remote-control key",
      {{"KEY", InputType::Text, true, "The key, as the remote labels it", &TvValues::Keys}},
      {{"REMOTE_BUTTON", "JSON",
        "KEY, PLATFORM_KEY (the television's name for it), TV_RESULT (0: pressed)"}});
  return form;
}

}  // namespace

CommandRemoteButton::CommandRemoteButton(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "REMOTE_BUTTON") {}

int CommandRemoteButton::run(const LumJson::Value& inputs, LumJson::Value& data) {
  const std::string key = inputs["KEY"].asString();
  const auto& keyMap = LumNorvikKeyMap();
  const auto found = keyMap.find(key);  // the form let only keys of the map through
  const int answer = LumKeyEventProc(key);
  data["KEY"] = key;
  data["PLATFORM_KEY"] = found != keyMap.end() ? found->second : std::string();
  data["TV_RESULT"] = answer;
  return answer == 0 ? kCommandSuccess : kCommandFailed;
}

}  // namespace Sv
}  // namespace Lum
