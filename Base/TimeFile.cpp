#include "Base/TimeFile.h"

#include "Platform/Clock.h"
#include "Platform/FileUtil.h"
#include "Platform/JsonUtil.h"

namespace Lum {
namespace Core {

namespace {

long long ToMilliseconds(const timespec& time) {
  return static_cast<long long>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}

}  // namespace

TimeFile::Result TimeFile::Load(const std::string& dir, const std::string& name,
                                LumJson::Value& stored, timespec& monotonic, bool& complete) {
  complete = false;
  const std::string text = FileUtil::Load(dir, name);
  if (text.empty() || !JsonUtil::ParseObject(text, stored)) {
    return Absent;
  }
  const LumJson::Value& sec = stored["sec"];
  const LumJson::Value& nsec = stored["nsec"];
  complete = sec.isIntegral() && nsec.isIntegral();
  timespec moment{};
  moment.tv_sec = sec.isIntegral() ? static_cast<time_t>(sec.asInt64()) : 0;
  // Normalised, so that a hand-edited file cannot produce an invalid time.
  const long long nanos = nsec.isIntegral() ? nsec.asInt64() : 0;
  moment.tv_sec += static_cast<time_t>(nanos / 1000000000);
  moment.tv_nsec = static_cast<long>(nanos % 1000000000);
  if (moment.tv_nsec < 0) {
    moment.tv_nsec += 1000000000;
    moment.tv_sec -= 1;
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
