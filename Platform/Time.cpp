#include "Platform/Time.h"

#include <sys/time.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "Platform/Clock.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Platform/Time");

namespace Lum {
namespace Sv {

namespace {

using FP = Core::FilterProperties;

constexpr int kSv = FP::SERVICE_SV;
constexpr size_t kUptimeBufferSize = 64;
const char* const kRealUptimeFile = "/proc/uptime";
const char* const kBadDateTime = "Failed to convert Date/Time formatted string into a time value.";

struct UptimeFile {
  std::mutex mutex;
  std::string path = kRealUptimeFile;
};

// Never destroyed: a command may still read the uptime while the host exits.
UptimeFile& TheUptimeFile() {
  static UptimeFile* const file = new UptimeFile();
  return *file;
}

// The text as UTC seconds; false unless it is exactly a date and time (with
// an optional "Z") whose fields are all in range. strptime alone accepts
// trailing text and normalises days and seconds that do not exist.
bool ParseUtc(const std::string& text, time_t& seconds) {
  tm parsed{};
  const char* end = strptime(text.c_str(), "%FT%T", &parsed);
  if (end == nullptr || !(*end == '\0' || std::strcmp(end, "Z") == 0)) {
    return false;
  }
  const tm fields = parsed;
  seconds = timegm(&parsed);
  tm check{};
  if (seconds == static_cast<time_t>(-1) || gmtime_r(&seconds, &check) == nullptr) {
    return false;
  }
  return check.tm_year == fields.tm_year && check.tm_mon == fields.tm_mon &&
         check.tm_mday == fields.tm_mday && check.tm_hour == fields.tm_hour &&
         check.tm_min == fields.tm_min && check.tm_sec == fields.tm_sec;
}

}  // namespace

std::string Time::GetCurrentDateTime() {
  const time_t now = Core::Clock::WallNow().tv_sec;
  tm utc{};
  if (gmtime_r(&now, &utc) == nullptr) {
    return std::string();
  }
  char text[64];
  if (strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc) == 0) {
    return std::string();
  }
  return text;
}

int Time::SetCurrentDateTime(const std::string& dateTime) {
  LUM_TRACE(kSv);
  time_t seconds = 0;
  if (!ParseUtc(dateTime, seconds)) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "%s", kBadDateTime);
    return 3;
  }
  timeval value{};
  value.tv_sec = seconds;
  if (Core::Clock::Current().setWall(value) != 0) {
    LUM_LOG(kSv, FP::CATEGORY_STATE, FP::SEVERITY_ERROR, "%s", kBadDateTime);
    return 1;
  }
  return 0;
}

int Time::CalculateRemainingTime(int total, time_t start) {
  const long long elapsed =
      static_cast<long long>(Core::Clock::WallNow().tv_sec) - static_cast<long long>(start);
  // A clock set back while a test runs must not extend its budget.
  if (elapsed <= 0) {
    return total > 0 ? total : 0;
  }
  const long long remaining = static_cast<long long>(total) - elapsed;
  return remaining > 0 ? static_cast<int>(remaining) : 0;
}

int Time::GetUptime() {
  std::string path;
  {
    std::lock_guard<std::mutex> lock(TheUptimeFile().mutex);
    path = TheUptimeFile().path;
  }
  FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) {
    return 0;
  }
  char buffer[kUptimeBufferSize] = {};
  const size_t read = std::fread(buffer, 1, sizeof buffer - 1, file);
  std::fclose(file);
  double seconds = 0;
  if (read == 0 || std::sscanf(buffer, "%63lf", &seconds) != 1 || !std::isfinite(seconds) ||
      seconds < 0) {
    return 0;
  }
  return seconds >= static_cast<double>(INT_MAX) ? INT_MAX : static_cast<int>(seconds);
}

void Time::SetUptimeFile(const std::string& path) {
  std::lock_guard<std::mutex> lock(TheUptimeFile().mutex);
  TheUptimeFile().path = path.empty() ? kRealUptimeFile : path;
}

}  // namespace Sv
}  // namespace Lum
