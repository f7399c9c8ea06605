#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_NORVIK_PICTURE_DIAGNOSTIC: runs the television's picture inspection and
// reports its answer with the picture settings and the format on screen.
class CommandPictureDiagnostic : public CommandFormHandler {
 public:
  explicit CommandPictureDiagnostic(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
