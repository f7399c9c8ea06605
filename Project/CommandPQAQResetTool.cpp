#include "Project/CommandPQAQResetTool.h"

#include "Project/NorvikInterfaces.h"

namespace Lum {
namespace Sv {

namespace {

constexpr char kOutputId[] = "PQ_AQ_RESET";

const CommandForm& Form() {
  static const CommandForm form = CommandPQAQTool::MakeForm(
      "Resets the picture and sound settings to their factory values", kOutputId);
  return form;
}

}  // namespace

CommandPQAQResetTool::CommandPQAQResetTool(const CommandBase& descriptor)
    : CommandPQAQTool(descriptor, Form(), kOutputId, &NkResetAQPQ) {}

}  // namespace Sv
}  // namespace Lum
