#include "Project/CommandGetAvailableCommands.h"

#include "Project/CommandManager.h"

namespace Lum {
namespace Sv {

int CommandGetAvailableCommands::executeHandler(const LumJson::Value& inputs,
                                                LumJson::Value& result) {
  return CommandManager::Instance()->reportAvailableCommands(inputs, result);
}

}  // namespace Sv
}  // namespace Lum
