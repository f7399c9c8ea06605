#include "Project/CommandCheckForUpdates.h"

#include "Base/CoreManager.h"
#include "Project/NorvikInterfaces.h"

namespace Lum {
namespace Sv {

namespace {

const CommandForm& Form() {
  static const CommandForm form(
      "Asks the agent to check for a software update at its next synchronisation", {},
      {{"UPDATE_CHECK", "JSON",
        "SW_VERSION (running now), AGENT_RESULT (0: check requested; 1: agent not running)"}});
  return form;
}

}  // namespace

CommandCheckForUpdates::CommandCheckForUpdates(const CommandBase& descriptor)
    : CommandFormHandler(descriptor, Form(), "UPDATE_CHECK") {}

int CommandCheckForUpdates::run(const LumJson::Value& /*inputs*/, LumJson::Value& data) {
  const unsigned agentResult = Core::CoreManager::Instance()->checkForSoftwareUpdate();
  data["SW_VERSION"] = NkGetSwVersion();
  data["AGENT_RESULT"] = agentResult;
  return agentResult == 0 ? kCommandSuccess : kCommandFailed;
}

}  // namespace Sv
}  // namespace Lum
