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

// Each entry runs its body through EntryGuard, which hands it the entry's
// own name for its log lines.
#define LUM_BAD_ARGUMENT(entry, argument)                                \
  do {                                                                   \
    LUM_LOG_AS(entry, kCore, FP::CATEGORY_CLIBAPI, FP::SEVERITY_WARNING, \
               "%s() called with bad %s value", entry, argument);        \
    return LUM_RESULT_BAD_ARGUMENT;                                      \
  } while (0)

#define LUM_CALLED(entry, severity) \
  LUM_LOG_AS(entry, kCore, FP::CATEGORY_CLIBAPI, severity, "%s() called", entry)

extern "C" {

LUM_API unsigned int LumInit(const char* identity, const char* config, const char* device) {
  return EntryGuard::Run(__func__, [&](const char* entry) -> unsigned {
    LUM_TRACE_AS(entry, kCore);
    if (identity == nullptr) LUM_BAD_ARGUMENT(entry, "identity");
    if (config == nullptr) LUM_BAD_ARGUMENT(entry, "config");
    if (device == nullptr) LUM_BAD_ARGUMENT(entry, "device");
    const unsigned result = CoreManager::Instance()->initialize(identity, config, device);
    LUM_CALLED(entry, FP::SEVERITY_INFO);
    return result;
  });
}

LUM_API unsigned int LumTerm(void) {
  return EntryGuard::Run(__func__, [](const char* entry) -> unsigned {
    LUM_TRACE_AS(entry, kCore);
    LUM_CALLED(entry, FP::SEVERITY_INFO);
    return CoreManager::Instance()->terminate(false);
  });
}

LUM_API unsigned int LumFactoryReset(void) {
  return EntryGuard::Run(__func__, [](const char* entry) -> unsigned {
    LUM_TRACE_AS(entry, kCore);
    LUM_CALLED(entry, FP::SEVERITY_INFO);
    return CoreManager::Instance()->terminate(true);
  });
}

LUM_API unsigned int LumEnableTestMode(void) {
  return EntryGuard::Run(__func__, [](const char* entry) -> unsigned {
    LUM_TRACE_AS(entry, kCore);
    LUM_CALLED(entry, FP::SEVERITY_INFO);
    return CoreManager::Instance()->enableTestMode();
  });
}

LUM_API unsigned int LumGetStatus(LumStatusMethod method, LumStatus* status) {
  return EntryGuard::Run(__func__, [&](const char* entry) -> unsigned {
    LUM_TRACE_AS(entry, kCore);
    if (static_cast<unsigned>(method) > LumStatusMethodOnChange) {
      LUM_BAD_ARGUMENT(entry, "method");
    }
    if (status == nullptr) LUM_BAD_ARGUMENT(entry, "status");
    LUM_CALLED(entry, FP::SEVERITY_DEBUG);
    return CoreManager::Instance()->getStatus(method, status);
  });
}

LUM_API unsigned int LumFreeStatus(LumStatus* status) {
  return EntryGuard::Run(__func__, [&](const char* entry) -> unsigned {
    LUM_TRACE_AS(entry, kCore);
    if (status == nullptr) LUM_BAD_ARGUMENT(entry, "status");
    LUM_CALLED(entry, FP::SEVERITY_DEBUG);
    return CoreManager::Instance()->freeStatus(status);
  });
}

LUM_API unsigned int LumLogMessage(unsigned int severity, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const unsigned result = EntryGuard::Run(__func__, [&](const char* entry) -> unsigned {
    LUM_TRACE_AS(entry, kCore);
    if (severity > kMaxHostSeverity) LUM_BAD_ARGUMENT(entry, "severity");
    if (format == nullptr) LUM_BAD_ARGUMENT(entry, "format");
    LUM_CALLED(entry, FP::SEVERITY_TRACE);
    // The host counts 0 (trace) up to 5 (fatal), the reverse of the logger.
    const int internalSeverity = FP::SEVERITY_TRACE - static_cast<int>(severity);
    return CoreManager::Instance()->supervisorLog(internalSeverity,
                                                  Lum::Core::StringUtil::Vform(format, args));
  });
  va_end(args);
  return result;
}

}  // extern "C"
