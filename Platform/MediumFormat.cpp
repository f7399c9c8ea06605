#include "Platform/MediumFormat.h"

#include <cstdio>
#include <ctime>

namespace Lum {
namespace Core {

std::string MediumFormat::format(const LoggingEvent& event) const {
  time_t seconds = event.timestamp.sec;
  struct tm utc {};
  gmtime_r(&seconds, &utc);
  char clock[32];
  snprintf(clock, sizeof clock, "%02d:%02d:%02d.%03d", utc.tm_hour, utc.tm_min, utc.tm_sec,
           static_cast<int>(event.timestamp.usec / 1000));

  std::string out;
  out.reserve(64 + event.message.size());
  out += clock;
  out += ' ';
  AppendClassification(out, event);
  AppendPadded(out, event.function + "()", 20);
  out += ' ';
  out += event.message;
  out += '\n';
  return out;
}

}  // namespace Core
}  // namespace Lum
