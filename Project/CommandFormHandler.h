#pragma once

#include "Base/CommandHandler.h"
#include "Project/CommandForm.h"

namespace Lum {
namespace Sv {

// The handler of a command whose EXECUTE is described by a CommandForm: the
// form answers DESCRIPTION and checks the inputs, and the command's own run()
// only ever sees inputs that passed. Its answer is one output element
// {"ID": outputId, "TYPE": "JSON", "DATA": what run() wrote}; a refused
// request answers no element at all.
class CommandFormHandler : public CommandHandler {
 public:
  CommandFormHandler(const CommandBase& descriptor, const CommandForm& form, const char* outputId);

  int descriptionHandler(LumJson::Value& result) override;
  int executeHandler(const LumJson::Value& inputs, LumJson::Value& result) override;

 protected:
  // Does the work; `data` starts as an empty object. Returns the result code;
  // 3 (an input refused) answers no element.
  virtual int run(const LumJson::Value& inputs, LumJson::Value& data) = 0;

  // Wraps `data` as this command's output element.
  void answer(LumJson::Value& data, LumJson::Value& result) const;

  const CommandForm& form() const { return form_; }

 private:
  const CommandForm& form_;  // static, one per command
  const char* outputId_;
};

}  // namespace Sv
}  // namespace Lum
