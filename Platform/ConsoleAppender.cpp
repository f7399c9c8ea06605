#include "Platform/ConsoleAppender.h"

namespace Lum {
namespace Core {

ConsoleAppender::ConsoleAppender(const LumJson::Value& config, FILE* stream)
    : Appender(config), stream_(stream) {
  registerSelf();
}

ConsoleAppender::~ConsoleAppender() {
  unregisterSelf();
}

void ConsoleAppender::doAppend(const LoggingEvent& event) {
  const Format* format = getFormat();
  if (format == nullptr || stream_ == nullptr) {
    return;
  }
  std::string text = format->format(event);
  fwrite(text.data(), 1, text.size(), stream_);
  fflush(stream_);
}

// The console streams belong to the process; there is nothing to release.
void ConsoleAppender::close() {}

}  // namespace Core
}  // namespace Lum
