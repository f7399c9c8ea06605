#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// FFFFFF_LIVE_SUPPORT_GET_DEVICE_CAPABILITIES: what this television has and offers: its sources,
// modes, outputs, languages, remote-control keys and optional features, so a support agent knows
// what the other commands accept.
class CommandGetDeviceCapabilities : public CommandFormHandler {
 public:
  explicit CommandGetDeviceCapabilities(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
