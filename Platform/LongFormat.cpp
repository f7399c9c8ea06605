#include "Platform/LongFormat.h"

namespace Lum {
namespace Core {

std::string LongFormat::format(const LoggingEvent& event) const {
  std::string location =
      event.file + ":" + std::to_string(event.line) + "-{" + event.function + "}";
  std::string out;
  out.reserve(150 + event.message.size());
  out += "[LUM] ";
  out += IsoTime(event.timestamp);
  out += ' ';
  out += event.threadId;
  out += ' ';
  AppendClassification(out, event);
  AppendPadded(out, location, 75);
  out += ' ';
  out += event.message;
  out += '\n';
  return out;
}

}  // namespace Core
}  // namespace Lum
