#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// FFFFFF_LIVE_SUPPORT_PRODUCT_RETURN_PREPROCESS: prepares a television that goes back to the maker:
// records what identifies it, resets picture and sound, and resets it to its factory state unless
// its user data is protected. It must be confirmed with "CONFIRM": true.
class CommandProductReturnPreprocess : public CommandFormHandler {
 public:
  explicit CommandProductReturnPreprocess(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
