#include "Base/VolatileValues.h"

#include "Platform/Clock.h"
#include "Platform/FilterProperties.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Base/VolatileValues");

namespace Lum {
namespace Core {

namespace {

constexpr int kService = FilterProperties::SERVICE_CORE;
constexpr int kCategory = FilterProperties::CATEGORY_STATE;
constexpr int kSeverity = FilterProperties::SEVERITY_DEBUG;

const char* BoolText(bool value) {
  return value ? "true" : "false";
}

// Whole seconds from `from` to `to`, rounded towards zero.
int SecondsBetween(const timespec& from, const timespec& to) {
  return static_cast<int>(DiffMilliseconds(to, from) / 1000);
}

}  // namespace

VolatileValues::VolatileValues()
    : pending(false),
      busy(false),
      evaluate(false),
      retry(false),
      startupDelay(false),
      badSynchs(0),
      lastCall{0, 0},
      nextCall{0, 0},
      nextDws(CheckForNotification) {}

void VolatileValues::logStateDebug() const {
  LUM_TRACE(kService);
  if (!Logger::Instance().test(kService, kCategory, kSeverity)) {
    return;
  }
  LUM_LOG(kService, kCategory, kSeverity, "%-37s: %s", "volatile->pending", BoolText(pending));
  LUM_LOG(kService, kCategory, kSeverity, "%-37s: %s", "volatile->busy", BoolText(busy));
  LUM_LOG(kService, kCategory, kSeverity, "%-37s: %s", "volatile->evaluate", BoolText(evaluate));
  LUM_LOG(kService, kCategory, kSeverity, "%-37s: %s", "volatile->retry", BoolText(retry));
  LUM_LOG(kService, kCategory, kSeverity, "%-37s: %s", "volatile->startupDelay",
          BoolText(startupDelay));
  LUM_LOG(kService, kCategory, kSeverity, "%-37s: %u", "volatile->badSynchs", badSynchs);
  LUM_LOG(kService, kCategory, kSeverity, "%-37s: %s", "volatile->nextDws",
          MicroServiceToString(nextDws));
  const timespec now = Clock::MonotonicNow();
  if (IsBefore(nextCall, now)) {
    LUM_LOG(kService, kCategory, kSeverity, "volatile->nextCall is in the past!");
  } else {
    LUM_LOG(kService, kCategory, kSeverity, "%-37s: %i seconds from now", "volatile->nextCall",
            SecondsBetween(now, nextCall));
  }
  if (IsBefore(now, lastCall)) {
    LUM_LOG(kService, kCategory, kSeverity, "volatile->lastCall is in the future!");
  } else {
    LUM_LOG(kService, kCategory, kSeverity, "%-37s: %i seconds ago", "volatile->lastCall",
            SecondsBetween(lastCall, now));
  }
}

}  // namespace Core
}  // namespace Lum
