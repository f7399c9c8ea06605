// The host's entry points into the agent core. Each is a thin guard: it
// checks its arguments, logs one line and forwards to the core manager.
// Nothing may escape into the host: any exception becomes a result code.
#include <lum.h>

#include <cstdarg>
#include <exception>
#include <string>

#include "Base/CoreManager.h"
#include "Base/EntryGuard.h"
#include "Platform/Logger.h"
#include "Platform/StringUtil.h"

LUM_SOURCE_FILE("Base/LumCore");

using Lum::Core::CoreManager;
using Lum::Core::EntryGuard;
using FP = Lum::Core::FilterProperties;

namespace {
constexpr int kCore = FP::SERVICE_CORE;
constexpr unsigned kMaxHostSeverity = 5;
}  // namespace

#define LUM_BAD_ARGUMENT(function, argument)                                        \
  do {                                                                              \
    LUM_LOG(kCore, FP::CATEGORY_CLIBAPI, FP::SEVERITY_WARNING,                      \
            function "() called with bad " argument " value");                      \
    return LUM_RESULT_BAD_ARGUMENT;                                                 \
  } while (0)

extern "C" {

LUM_API unsigned int LumInit(const char* identity, const char* config, const char* device) {
  return EntryGuard::Run([&]() -> unsigned {
    LUM_TRACE(kCore);
    if (identity == nullptr) LUM_BAD_ARGUMENT("LumInit", "identity");
    if (config == nullptr) LUM_BAD_ARGUMENT("LumInit", "config");
    if (device == nullptr) LUM_BAD_ARGUMENT("LumInit", "device");
    const unsigned result = CoreManager::Instance()->initialize(identity, config, device);
    LUM_LOG(kCore, FP::CATEGORY_CLIBAPI, FP::SEVERITY_INFO, "LumInit() called");
    return result;
  });
}

LUM_API unsigned int LumTerm(void) {
  return EntryGuard::Run([]() -> unsigned {
    LUM_TRACE(kCore);
    LUM_LOG(kCore, FP::CATEGORY_CLIBAPI, FP::SEVERITY_INFO, "LumTerm() called");
    return CoreManager::Instance()->terminate(false);
  });
}

LUM_API unsigned int LumFactoryReset(void) {
  return EntryGuard::Run([]() -> unsigned {
    LUM_TRACE(kCore);
    LUM_LOG(kCore, FP::CATEGORY_CLIBAPI, FP::SEVERITY_INFO, "LumFactoryReset() called");
    return CoreManager::Instance()->terminate(true);
  });
}

LUM_API unsigned int LumEnableTestMode(void) {
  return EntryGuard::Run([]() -> unsigned {
    LUM_TRACE(kCore);
    LUM_LOG(kCore, FP::CATEGORY_CLIBAPI, FP::SEVERITY_INFO, "LumEnableTestMode() called");
    return CoreManager::Instance()->enableTestMode();
  });
}

LUM_API unsigned int LumGetStatus(LumStatusMethod method, LumStatus* status) {
  return EntryGuard::Run([&]() -> unsigned {
    LUM_TRACE(kCore);
    if (static_cast<unsigned>(method) > LumStatusMethodOnChange) {
      LUM_BAD_ARGUMENT("LumGetStatus", "method");
    }
    if (status == nullptr) LUM_BAD_ARGUMENT("LumGetStatus", "status");
    LUM_LOG(kCore, FP::CATEGORY_CLIBAPI, FP::SEVERITY_DEBUG, "LumGetStatus() called");
    return CoreManager::Instance()->getStatus(method, status);
  });
}

LUM_API unsigned int LumFreeStatus(LumStatus* status) {
  return EntryGuard::Run([&]() -> unsigned {
    LUM_TRACE(kCore);
    if (status == nullptr) LUM_BAD_ARGUMENT("LumFreeStatus", "status");
    LUM_LOG(kCore, FP::CATEGORY_CLIBAPI, FP::SEVERITY_DEBUG, "LumFreeStatus() called");
    return CoreManager::Instance()->freeStatus(status);
  });
}

LUM_API unsigned int LumLogMessage(unsigned int severity, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const unsigned result = EntryGuard::Run([&]() -> unsigned {
    LUM_TRACE(kCore);
    if (severity > kMaxHostSeverity) LUM_BAD_ARGUMENT("LumLogMessage", "severity");
    if (format == nullptr) LUM_BAD_ARGUMENT("LumLogMessage", "format");
    LUM_LOG(kCore, FP::CATEGORY_CLIBAPI, FP::SEVERITY_TRACE, "LumLogMessage() called");
    // The host counts 0 (trace) up to 5 (fatal), the reverse of the logger.
    const int internalSeverity = FP::SEVERITY_TRACE - static_cast<int>(severity);
    return CoreManager::Instance()->supervisorLog(internalSeverity,
                                                  Lum::Core::StringUtil::Vform(format, args));
  });
  va_end(args);
  return result;
}

LUM_API unsigned int LumCheckForSoftwareUpdate(void) {
  return EntryGuard::Run([]() -> unsigned {
    LUM_TRACE(kCore);
    LUM_LOG(kCore, FP::CATEGORY_CLIBAPI, FP::SEVERITY_INFO, "LumCheckForSoftwareUpdate() called");
    return CoreManager::Instance()->checkForSoftwareUpdate();
  });
}

}  // extern "C"
