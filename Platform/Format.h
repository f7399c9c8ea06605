#pragma once

#include <string>

#include "Platform/LoggingEvent.h"

namespace Lum {
namespace Core {

// Turns an event into the text of one log line (ending in a newline).
// Formats are stateless, so no mutex guards them; the owning appender is
// only used under the logger mutex anyway.
class Format {
 public:
  virtual ~Format();
  virtual std::string format(const LoggingEvent& event) const = 0;

 protected:
  // Appends `field` left-aligned and padded with spaces to `width`; a longer
  // field is kept whole so that no information is cut off.
  static void AppendPadded(std::string& out, const std::string& field, size_t width);
  // service[4] category[10] severity[7], each followed by a space.
  static void AppendClassification(std::string& out, const LoggingEvent& event);
  // "%Y-%m-%dT%H:%M:%S.%06dZ" of the event's time, in UTC.
  static std::string IsoTime(const Timestamp& timestamp);
};

}  // namespace Core
}  // namespace Lum
