#pragma once

#include <string>

#include "Platform/Timestamp.h"

namespace Lum {
namespace Core {

// One log call, built once and handed by const reference to every appender.
// Immutable after construction, so no mutex guards it.
class LoggingEvent {
 public:
  // Takes the logging thread's id and the current time.
  LoggingEvent(const char* file, int line, const char* function, int service, int category,
               int severity, std::string message);

  std::string file;  // source file as "Directory/ClassName"
  int line;
  std::string function;  // bare function name
  int service;
  int category;
  int severity;
  std::string message;   // the fully formatted text
  std::string threadId;  // 8 hex digits
  Timestamp timestamp;
};

}  // namespace Core
}  // namespace Lum
