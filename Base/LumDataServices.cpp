// The host's entry point into the data services: a thin guard that checks
// its argument, logs one line and forwards to the data services manager.
#include <lum.h>

#include "Base/DataServicesManager.h"
#include "Base/EntryGuard.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Base/LumDataServices");

using FP = Lum::Core::FilterProperties;

extern "C" {

LUM_API unsigned int LumSubmitDataItem(const char* item) {
  return Lum::Core::EntryGuard::Run(__func__, [item](const char* entry) -> unsigned {
    LUM_TRACE_AS(entry, FP::SERVICE_DS);
    if (item == nullptr) {
      LUM_LOG_AS(entry, FP::SERVICE_DS, FP::CATEGORY_CLIBAPI, FP::SEVERITY_WARNING,
                 "%s() called with bad item value", entry);
      return LUM_RESULT_BAD_ARGUMENT;
    }
    LUM_LOG_AS(entry, FP::SERVICE_DS, FP::CATEGORY_CLIBAPI, FP::SEVERITY_DEBUG, "%s() called",
               entry);
    return Lum::Ds::DataServicesManager::Instance()->submitDataItem(item);
  });
}

}  // extern "C"
