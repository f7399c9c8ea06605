#pragma once

#include <sys/types.h>

#include <string>

#include "Platform/Appender.h"

namespace Lum {
namespace Core {

// Writes each line with a single write() to a file opened once at
// construction. No rotation and no size limit. A file that cannot be opened
// leaves the descriptor at -1 and every write silently fails.
// fd_ is used under the logger mutex (doAppend, close) or by the owner
// during construction and destruction.
class FileAppender final : public Appender {
 public:
  FileAppender(const LumJson::Value& config, const std::string& path, bool append, mode_t mode);
  ~FileAppender() override;

  void doAppend(const LoggingEvent& event) override;
  void close() override;

 private:
  int fd_;
};

}  // namespace Core
}  // namespace Lum
