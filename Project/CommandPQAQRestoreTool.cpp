#include "Project/CommandPQAQRestoreTool.h"

#include "Project/NorvikInterfaces.h"

namespace Lum {
namespace Sv {

namespace {

constexpr char kOutputId[] = "PQ_AQ_RESTORE";

const CommandForm& Form() {
  static const CommandForm form = CommandPQAQTool::MakeForm(
      "Restores the picture and sound settings the user saved last", kOutputId);
  return form;
}

}  // namespace

CommandPQAQRestoreTool::CommandPQAQRestoreTool(const CommandBase& descriptor)
    : CommandPQAQTool(descriptor, Form(), kOutputId, &NkRestoreAQPQ) {}

}  // namespace Sv
}  // namespace Lum
