#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_NORVIK_HDMI_DIAGNOSTIC: the HDMI ports and what is attached to them, HDCP,
// EDID, CEC and the audio return channel.
class CommandHDMIDiagnostic : public CommandFormHandler {
 public:
  explicit CommandHDMIDiagnostic(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
