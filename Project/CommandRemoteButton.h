#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// FFFFFF_LIVE_SUPPORT_TV_REMOTE_BUTTON: presses one remote-control key, named as the back end names
// it ("HOME", "SVC_NETFLIX"); only keys of the key map are pressed.
class CommandRemoteButton : public CommandFormHandler {
 public:
  explicit CommandRemoteButton(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
