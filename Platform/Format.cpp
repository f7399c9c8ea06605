#include "Platform/Format.h"

#include <cstdio>
#include <ctime>

#include "Platform/FilterProperties.h"

namespace Lum {
namespace Core {

Format::~Format() = default;

void Format::AppendPadded(std::string& out, const std::string& field, size_t width) {
  out += field;
  if (field.size() < width) {
    out.append(width - field.size(), ' ');
  }
}

void Format::AppendClassification(std::string& out, const LoggingEvent& event) {
  AppendPadded(out, FilterProperties::GetServiceName(event.service), 4);
  out += ' ';
  AppendPadded(out, FilterProperties::GetCategoryName(event.category), 10);
  out += ' ';
  AppendPadded(out, FilterProperties::GetSeverityName(event.severity), 7);
  out += ' ';
}

std::string Format::IsoTime(const Timestamp& timestamp) {
  time_t seconds = timestamp.sec;
  struct tm utc {};
  gmtime_r(&seconds, &utc);
  char date[32];
  size_t length = strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &utc);
  char fraction[16];
  snprintf(fraction, sizeof fraction, ".%06dZ", static_cast<int>(timestamp.usec));
  return std::string(date, length) + fraction;
}

}  // namespace Core
}  // namespace Lum
