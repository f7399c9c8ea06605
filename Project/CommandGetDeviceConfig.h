#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// FFFFFF_LIVE_SUPPORT_GET_DEVICE_CONFIG: reads one of the television's configuration files: the
// platform makes a readable copy, the agent reads at most 64 KiB of it, and the platform removes
// the copy.
class CommandGetDeviceConfig : public CommandFormHandler {
 public:
  explicit CommandGetDeviceConfig(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
