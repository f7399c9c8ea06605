#include "Platform/FileAppender.h"

#include <fcntl.h>
#include <unistd.h>

namespace Lum {
namespace Core {

FileAppender::FileAppender(const LumJson::Value& config, const std::string& path, bool append,
                           mode_t mode)
    : Appender(config), fd_(-1) {
  int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | (append ? 0 : O_TRUNC);
  fd_ = open(path.c_str(), flags, mode);
  registerSelf();
}

FileAppender::~FileAppender() {
  unregisterSelf();
  close();
}

void FileAppender::doAppend(const LoggingEvent& event) {
  const Format* format = getFormat();
  if (format == nullptr || fd_ < 0) {
    return;
  }
  // One write per line keeps lines whole even when another process appends
  // to the same file; a failed write has nowhere to be reported.
  std::string text = format->format(event);
  ssize_t written = write(fd_, text.data(), text.size());
  (void)written;
}

void FileAppender::close() {
  if (fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

}  // namespace Core
}  // namespace Lum
