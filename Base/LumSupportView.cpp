// The host's entry points into remote support sessions: thin guards that
// check their argument, log one line and forward to the support view
// manager.
#include <lum.h>

#include "Base/EntryGuard.h"
#include "Base/SupportViewManager.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Base/LumSupportView");

using FP = Lum::Core::FilterProperties;

extern "C" {

LUM_API unsigned int LumSessionInit(unsigned int allowSessionCodeBypass) {
  return Lum::Core::EntryGuard::Run(__func__, [allowSessionCodeBypass](const char* entry) {
    LUM_TRACE_AS(entry, FP::SERVICE_SV);
    if (allowSessionCodeBypass > 1) {
      LUM_LOG_AS(entry, FP::SERVICE_SV, FP::CATEGORY_CLIBAPI, FP::SEVERITY_ERROR,
                 "%s() called with bad allowSessionCodeBypass value", entry);
      return LUM_RESULT_BAD_ARGUMENT;
    }
    LUM_LOG_AS(entry, FP::SERVICE_SV, FP::CATEGORY_CLIBAPI, FP::SEVERITY_INFO, "%s() called",
               entry);
    return Lum::Sv::SupportViewManager::Instance()->sessionInitialize(
        (allowSessionCodeBypass & 1u) != 0);
  });
}

LUM_API unsigned int LumSessionTerm(void) {
  return Lum::Core::EntryGuard::Run(__func__, [](const char* entry) {
    LUM_TRACE_AS(entry, FP::SERVICE_SV);
    LUM_LOG_AS(entry, FP::SERVICE_SV, FP::CATEGORY_CLIBAPI, FP::SEVERITY_INFO, "%s() called",
               entry);
    return Lum::Sv::SupportViewManager::Instance()->sessionTerminate();
  });
}

}  // extern "C"
