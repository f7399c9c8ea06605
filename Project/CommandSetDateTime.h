#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// FFFFFF_LIVE_SUPPORT_SET_DATE_TIME: sets the television's clock to a UTC time given as
// "2024-05-01T12:00:00Z".
class CommandSetDateTime : public CommandFormHandler {
 public:
  explicit CommandSetDateTime(const CommandBase& descriptor);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;
};

}  // namespace Sv
}  // namespace Lum
