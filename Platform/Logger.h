#pragma once

#include <atomic>

#include "Platform/FilterProperties.h"
#include "Platform/FunctionTrace.h"
#include "Platform/LumJson.h"
#include "Platform/Mutex.h"

namespace Lum {
namespace Core {

// The process-wide logger. Every line goes through its mutex, so lines from
// different threads never interleave; appenders are configured once from the
// "loggers" array of the core configuration.
class Logger {
 public:
  static Logger& Instance();

  void initialize(const LumJson::Value& loggers) EXCLUDES(mutex_);
  void terminate() EXCLUDES(mutex_);

  // Whether any appender passes this classification. Callers test before
  // formatting so that disabled logging costs no formatting at all; the test
  // itself takes no lock, so it costs a few loads.
  bool test(int service, int category, int severity);

  // Never throws: a line that cannot be made or written (an exhausted heap)
  // is dropped, so logging is never the reason a call or a stop fails.
  void log(const char* file, int line, const char* function, int service, int category,
           int severity, const char* format, ...) noexcept EXCLUDES(mutex_)
      __attribute__((format(printf, 8, 9)));

 private:
  Logger() = default;

  Mutex mutex_;
  bool initialized_ GUARDED_BY(mutex_) = false;
  // Mirrors initialized_ for the lock-free test(). Written under mutex_:
  // set after the appenders exist, cleared before they are deleted.
  std::atomic<bool> enabled_{false};
};

}  // namespace Core
}  // namespace Lum

// Each source file names itself once, as directory and class ("Platform/Http"),
// with `LUM_SOURCE_FILE("Platform/Http");` and then logs with LUM_LOG. The test
// comes first so a disabled line costs neither formatting nor argument work.
#define LUM_SOURCE_FILE(name)         \
  namespace {                         \
  constexpr char kLumSource[] = name; \
  }

#define LUM_LOG(service, category, severity, ...) \
  LUM_LOG_AS(__func__, service, category, severity, __VA_ARGS__)

// Logs under an explicit function name: the C entries run their bodies in
// lambdas, whose own name is "operator()".
#define LUM_LOG_AS(function, service, category, severity, ...)                                     \
  do {                                                                                             \
    if (::Lum::Core::Logger::Instance().test((service), (category), (severity))) {                 \
      ::Lum::Core::Logger::Instance().log(kLumSource, __LINE__, (function), (service), (category), \
                                          (severity), __VA_ARGS__);                                \
    }                                                                                              \
  } while (0)

#define LUM_TRACE(service) LUM_TRACE_AS(__func__, service)
#define LUM_TRACE_AS(function, service) \
  ::Lum::Core::FunctionTrace lumFunctionTrace_((function), kLumSource, __LINE__, (service))
