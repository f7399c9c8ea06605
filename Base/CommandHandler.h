#pragma once

#include "Base/CommandContext.h"
#include "Platform/LumJson.h"

namespace Lum {
namespace Sv {

class CommandBase;

// Does the work of one operation of one command. A handler is made by its
// descriptor for a single operation and deleted after it; it is never shared
// between threads.
//
// The four handlers write into a fresh result value, which execute(), get()
// and description() then append to the outputs: an object that already has
// "ID", "TYPE" and "DATA" as it is, any other non-empty value wrapped as
// {"ID": "RESPONSE_DATA", "TYPE": "JSON", "DATA": value}, an empty one not at
// all. The base versions answer 5, "operation not implemented".
class CommandHandler {
 public:
  explicit CommandHandler(const CommandBase& descriptor);
  virtual ~CommandHandler();
  CommandHandler(const CommandHandler&) = delete;
  CommandHandler& operator=(const CommandHandler&) = delete;

  virtual int descriptionHandler(LumJson::Value& result);
  virtual int executeHandler(const LumJson::Value& inputs, LumJson::Value& result);
  virtual int getHandler(const LumJson::Value& inputs, LumJson::Value& result);
  virtual int sessionTerminateHandler();

  // Runs the operation the context names: 4 when the command does not offer
  // it, otherwise the operation's own result; `outputs` must be an array.
  int performOperation(const CommandContext& context, const LumJson::Value& inputs,
                       LumJson::Value& outputs);
  int execute(const LumJson::Value& inputs, LumJson::Value& outputs);
  int get(const LumJson::Value& inputs, LumJson::Value& outputs);
  int description(LumJson::Value& outputs);
  int sessionTerminate();

  const CommandBase& descriptor() const { return descriptor_; }

 private:
  // Logs and answers false when `inputs` (unless null, meaning any inputs
  // will do) is not an object or `outputs` not an array.
  bool validParameters(const LumJson::Value* inputs, const LumJson::Value& outputs) const;
  // Appends `result` to `outputs` by the output element rule above.
  static void AppendOutput(LumJson::Value& result, LumJson::Value& outputs);

  const CommandBase& descriptor_;  // lives for the rest of the process
};

}  // namespace Sv
}  // namespace Lum
