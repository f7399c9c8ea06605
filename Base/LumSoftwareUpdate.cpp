// The host's entry points into software update: thin guards that check
// their arguments, log one line and forward to the managers.
#include <lum.h>

#include "Base/CoreManager.h"
#include "Base/EntryGuard.h"
#include "Base/SoftwareUpdateManager.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Base/LumSoftwareUpdate");

using Lum::Core::EntryGuard;
using Lum::Su::SoftwareUpdateManager;
using FP = Lum::Core::FilterProperties;

namespace {
constexpr int kSu = FP::SERVICE_SU;
constexpr unsigned kSourceCount = 2;
constexpr unsigned kPermissionCount = 3;
}  // namespace

#define LUM_BAD_ARGUMENT(entry, argument)                              \
  do {                                                                 \
    LUM_LOG_AS(entry, kSu, FP::CATEGORY_CLIBAPI, FP::SEVERITY_WARNING, \
               "%s() called with bad %s value", entry, argument);      \
    return LUM_RESULT_BAD_ARGUMENT;                                    \
  } while (0)

extern "C" {

LUM_API unsigned int LumCheckForSoftwareUpdate(void) {
  return EntryGuard::Run(__func__, [](const char* entry) -> unsigned {
    LUM_TRACE_AS(entry, kSu);
    LUM_LOG_AS(entry, kSu, FP::CATEGORY_CLIBAPI, FP::SEVERITY_INFO, "%s() called", entry);
    return Lum::Core::CoreManager::Instance()->checkForSoftwareUpdate();
  });
}

LUM_API unsigned int LumSetSoftwareUpdateSource(unsigned int source, const char* location) {
  return EntryGuard::Run(__func__, [source, location](const char* entry) -> unsigned {
    LUM_TRACE_AS(entry, kSu);
    if (source >= kSourceCount) {
      LUM_BAD_ARGUMENT(entry, "source");
    }
    // A local update is a file on the device, so it needs a path; the back
    // end's metadata may come without a location.
    if (source == SoftwareUpdateManager::SourceLocal &&
        (location == nullptr || *location == '\0')) {
      LUM_BAD_ARGUMENT(entry, "location");
    }
    LUM_LOG_AS(entry, kSu, FP::CATEGORY_CLIBAPI, FP::SEVERITY_DEBUG, "%s() called", entry);
    return SoftwareUpdateManager::Instance()->setSource(source, location != nullptr ? location : "",
                                                        true);
  });
}

LUM_API unsigned int LumSetSoftwareUpdatePermission(unsigned int permission) {
  return EntryGuard::Run(__func__, [permission](const char* entry) -> unsigned {
    LUM_TRACE_AS(entry, kSu);
    if (permission >= kPermissionCount) {
      LUM_BAD_ARGUMENT(entry, "permission");
    }
    // The function's earlier name, which the field's log readers search for.
    LUM_LOG_AS(entry, kSu, FP::CATEGORY_CLIBAPI, FP::SEVERITY_DEBUG,
               "LumSetSoftwareUpdateStaging() called");
    return SoftwareUpdateManager::Instance()->setPermission(permission);
  });
}

}  // extern "C"
