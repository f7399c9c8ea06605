#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_NORVIK_TV_DIAGNOSTIC: the broadcast signal the television receives: source,
// channel, formats, quality and level.
class CommandTVDiagnostic : public CommandFormHandler {
 public:
  explicit CommandTVDiagnostic(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
