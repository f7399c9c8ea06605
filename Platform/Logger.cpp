#include "Platform/Logger.h"

#include <syslog.h>

#include <cstdarg>
#include <string>

#include "Platform/Appender.h"
#include "Platform/ConsoleAppender.h"
#include "Platform/FileAppender.h"
#include "Platform/LockMutex.h"
#include "Platform/LoggingEvent.h"
#include "Platform/StringUtil.h"
#include "Platform/SyslogAppender.h"

namespace Lum {
namespace Core {

namespace {
constexpr mode_t kLogFileMode = 0644;

std::string StringMember(const LumJson::Value& object, const char* key) {
  const LumJson::Value& member = object[key];
  return member.isString() ? member.asString() : std::string();
}

// Appenders register themselves on construction; from then on the registry
// owns them and Appender::DeleteAllAppenders deletes them.
void CreateAppender(const LumJson::Value& element) {
  if (!element.isObject()) {
    return;
  }
  std::string argument = StringMember(element, "argument");
  if (argument.empty()) {
    return;
  }
  std::string type = StringMember(element, "type");
  if (type == "console") {
    if (argument == "stdout") {
      new ConsoleAppender(element, stdout);
    } else if (argument == "stderr") {
      new ConsoleAppender(element, stderr);
    }
  } else if (type == "file") {
    new FileAppender(element, argument, false, kLogFileMode);
  } else if (type == "syslog") {
    new SyslogAppender(element, argument, LOG_USER);
  }
}
}  // namespace

// Never destroyed: threads that the host leaves running may still log while
// the process exits, after function-local statics would have been torn down.
Logger& Logger::Instance() {
  static Logger* instance = new Logger();
  return *instance;
}

void Logger::initialize(const LumJson::Value& loggers) {
  LockMutex lock(&mutex_);
  if (initialized_ || !loggers.isArray()) {
    return;
  }
  for (const LumJson::Value& element : loggers) {
    CreateAppender(element);
  }
  initialized_ = true;
  enabled_.store(true, std::memory_order_release);
}

void Logger::terminate() {
  LockMutex lock(&mutex_);
  if (!initialized_) {
    return;
  }
  enabled_.store(false, std::memory_order_release);
  Appender::DeleteAllAppenders();
  initialized_ = false;
}

// Lock-free on purpose: it runs before every log call in every thread. The
// flag is cleared before terminate deletes the appenders and set only after
// initialize created them, and log() re-checks under the mutex, so a test
// racing with either can at worst let one call reach log(), which is then a
// no-op.
bool Logger::test(int service, int category, int severity) {
  if (!enabled_.load(std::memory_order_acquire)) {
    return false;
  }
  int highest = Appender::HighestEnabledSeverity(service, category);
  return highest >= 0 && highest >= severity;
}

void Logger::log(const char* file, int line, const char* function, int service, int category,
                 int severity, const char* format, ...) noexcept {
  LockMutex lock(&mutex_);
  if (!initialized_) {
    return;
  }
  std::string message;
  va_list args;
  va_start(args, format);
  try {
    message = StringUtil::Vform(format, args);
  } catch (...) {
    va_end(args);
    return;
  }
  va_end(args);
  try {
    LoggingEvent event(file, line, function, service, category, severity, std::move(message));
    Appender::VisitAllAppenders([&event](Appender& appender) {
      if (appender.isLogEnabled(event.service, event.category, event.severity)) {
        appender.doAppend(event);
      }
    });
  } catch (...) {
    // The line is dropped.
  }
}

}  // namespace Core
}  // namespace Lum
