#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_NORVIK_SYSTEM_INFO_DIAGNOSTIC: the system's state: platform, mode, software,
// locale, clock, up time and keys.
class CommandSystemInfo : public CommandFormHandler {
 public:
  explicit CommandSystemInfo(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
