#pragma once

#include "Project/CommandFormHandler.h"

namespace Lum {
namespace Sv {

// The picture-and-sound restore and reset commands: they differ only in the
// platform action they ask for. Each asks it for picture and sound together
// (scope 0) and shows both groups of settings as they are afterwards.
class CommandPQAQTool : public CommandFormHandler {
 public:
  using Action = int (*)(int scope);

  CommandPQAQTool(const CommandBase& descriptor, const CommandForm& form, const char* outputId,
                  Action action);

  // The form of either command.
  static CommandForm MakeForm(const char* summary, const char* outputId);

 protected:
  int run(const LumJson::Value& inputs, LumJson::Value& data) override;

 private:
  const char* outputId_;
  Action action_;
};

}  // namespace Sv
}  // namespace Lum
