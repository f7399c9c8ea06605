#include "Platform/ShortFormat.h"

namespace Lum {
namespace Core {

std::string ShortFormat::format(const LoggingEvent& event) const {
  std::string out;
  out.reserve(24 + event.message.size());
  AppendClassification(out, event);
  out += event.message;
  out += '\n';
  return out;
}

}  // namespace Core
}  // namespace Lum
