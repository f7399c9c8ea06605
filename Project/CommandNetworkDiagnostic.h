#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_NORVIK_NETWORK_DIAGNOSTIC: the network interfaces with their counters, the
// default gateway, the link and Wi-Fi figures, the DNS and ping tests and, unless turned off, the
// speed tests against the back end.
class CommandNetworkDiagnostic : public CommandFormHandler {
 public:
  explicit CommandNetworkDiagnostic(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
