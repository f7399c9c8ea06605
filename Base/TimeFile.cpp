#include "Base/TimeFile.h"

#include <cstring>
#include <limits>

#include "Platform/Clock.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"

namespace Lum {
namespace Core {

namespace {

constexpr long long kNanosPerSecond = 1000000000LL;
// 9999-12-31T23:59:59Z, or the last second a 32-bit time_t can hold.
constexpr long long kLastSecond = std::numeric_limits<time_t>::max() < 253402300799LL
                                      ? static_cast<long long>(std::numeric_limits<time_t>::max())
                                      : 253402300799LL;

long long ToMilliseconds(const timespec& time) {
  return static_cast<long long>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

// An absent member reads as 0; one of any other kind than a 64-bit integer
// makes the document invalid.
bool ReadInteger(const LumJson::Value& stored, const char* key, long long& value, bool& present) {
  const LumJson::Value* member = stored.find(key, key + std::strlen(key));
  present = member != nullptr;
  value = 0;
  if (member == nullptr) {
    return true;
  }
  if (!member->isInt64()) {
    return false;
  }
  value = member->asInt64();
  return true;
}

}  // namespace

const char* TimeFile::kIgnoredLine = "Ignoring %s, it does not hold a valid time";

bool TimeFile::ReadMoment(const LumJson::Value& stored, timespec& moment, bool& complete) {
  complete = false;
  if (!stored.isObject()) {
    return false;
  }
  long long seconds = 0;
  long long nanos = 0;
  bool hasSeconds = false;
  bool hasNanos = false;
  if (!ReadInteger(stored, "sec", seconds, hasSeconds) ||
      !ReadInteger(stored, "nsec", nanos, hasNanos) || seconds < 0 || seconds > kLastSecond) {
    return false;
  }
  // Normalised, so that a hand-edited file cannot produce an invalid time;
  // |nanos| / 1e9 is below 1e10, so the sum cannot overflow.
  seconds += nanos / kNanosPerSecond;
  nanos %= kNanosPerSecond;
  if (nanos < 0) {
    nanos += kNanosPerSecond;
    seconds -= 1;
  }
  if (seconds < 0 || seconds > kLastSecond) {
    return false;
  }
  moment.tv_sec = static_cast<time_t>(seconds);
  moment.tv_nsec = static_cast<long>(nanos);
  complete = hasSeconds && hasNanos;
  return true;
}

TimeFile::Result TimeFile::Load(const std::string& dir, const std::string& name,
                                LumJson::Value& stored, timespec& monotonic, bool& complete) {
  complete = false;
  const std::string text = FileUtil::Load(dir, name);
  if (text.empty()) {
    return Absent;
  }
  timespec moment{};
  if (!JsonUtil::ParseStrict(text, stored) || !ReadMoment(stored, moment, complete)) {
    return Invalid;
  }
  const timespec wall = Clock::WallNow();
  const timespec mono = Clock::MonotonicNow();
  if (IsBefore(wall, moment)) {
    return InFuture;
  }
  // A moment older than this boot lies before the monotonic origin, which is
  // fine: only differences are ever taken.
  monotonic = FromMilliseconds(ToMilliseconds(mono) - DiffMilliseconds(wall, moment));
  return Ok;
}

TimeFile::Result TimeFile::ToWall(const timespec& monotonic, timespec& wall) {
  const timespec now = Clock::WallNow();
  const long long elapsedMs = DiffMilliseconds(Clock::MonotonicNow(), monotonic);
  wall = now;
  if (elapsedMs < 0) {
    return ElapsedNegative;
  }
  const timespec moment = FromMilliseconds(ToMilliseconds(now) - elapsedMs);
  if (IsBefore(now, moment)) {
    return InFuture;
  }
  wall = moment;
  return Ok;
}

bool TimeFile::Store(const std::string& dir, const std::string& name, const timespec& wall,
                     LumJson::Value& stored) {
  stored = LumJson::Value(LumJson::objectValue);
  stored["sec"] = static_cast<LumJson::Int64>(wall.tv_sec);
  stored["nsec"] = static_cast<LumJson::Int64>(wall.tv_nsec);
  return FileUtil::Store(dir, name, JsonUtil::WriteCompact(stored));
}

}  // namespace Core
}  // namespace Lum
