#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// FFFFFF_LIVE_SUPPORT_GET_DEVICE_INFO: who the television is: the facts the platform reports and
// the ones the agent registered with.
class CommandGetDeviceInfo : public CommandFormHandler {
 public:
  explicit CommandGetDeviceInfo(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
