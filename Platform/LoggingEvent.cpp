#include "Platform/LoggingEvent.h"

#include <utility>

#include "Platform/ThreadUtil.h"

namespace Lum {
namespace Core {

LoggingEvent::LoggingEvent(const char* file, int line, const char* function, int service,
                           int category, int severity, std::string message)
    : file(file != nullptr ? file : ""),
      line(line),
      function(function != nullptr ? function : ""),
      service(service),
      category(category),
      severity(severity),
      message(std::move(message)),
      threadId(ThreadUtil::GetThreadIdAsString()),
      timestamp() {}

}  // namespace Core
}  // namespace Lum
