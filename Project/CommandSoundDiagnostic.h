#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// B7E20D_LIVE_SUPPORT_NORVIK_SOUND_DIAGNOSTIC: runs the television's sound inspection and reports
// its answer with the sound settings and the attached headphones.
class CommandSoundDiagnostic : public CommandFormHandler {
 public:
  explicit CommandSoundDiagnostic(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
