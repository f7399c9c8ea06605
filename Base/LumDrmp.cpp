// The host's entry point into DRMP: a thin guard that logs one line and
// forwards to the DRMP manager.
#include <lum.h>

#include "Base/DrmpManager.h"
#include "Base/EntryGuard.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Base/LumDrmp");

using FP = Lum::Core::FilterProperties;

extern "C" {

LUM_API unsigned int LumCheckForDrmpUpdate(void) {
  return Lum::Core::EntryGuard::Run(__func__, [](const char* entry) -> unsigned {
    LUM_TRACE_AS(entry, FP::SERVICE_DRMP);
    LUM_LOG_AS(entry, FP::SERVICE_DRMP, FP::CATEGORY_CLIBAPI, FP::SEVERITY_INFO, "%s() called",
               entry);
    return Lum::Drmp::DrmpManager::Instance()->checkForDrmpUpdate();
  });
}

}  // extern "C"
