#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_NORVIK_BT_DIAGNOSTIC: the Bluetooth self-diagnosis and the paired devices.
class CommandBTDiagnostic : public CommandFormHandler {
 public:
  explicit CommandBTDiagnostic(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
