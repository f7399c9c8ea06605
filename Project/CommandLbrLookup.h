#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// FFFFFF_LIVE_SUPPORT_COMMAND_LBR_LOOKUP: where the television is served from: the back end's look-
// up domain and the television's region and country. It takes any inputs, and ignores them.
class CommandLbrLookup : public CommandFormHandler {
 public:
  explicit CommandLbrLookup(const CommandBase& descriptor);

  int executeHandler(const LumJson::Value& inputs, LumJson::Value& result) override;

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
