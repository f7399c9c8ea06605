#pragma once

#include <cstdio>

#include "Platform/Appender.h"

namespace Lum {
namespace Core {

// Writes lines to standard output or standard error and flushes each one.
// stream_ is set at construction; writes happen under the logger mutex.
class ConsoleAppender final : public Appender {
 public:
  ConsoleAppender(const LumJson::Value& config, FILE* stream);
  ~ConsoleAppender() override;

  void doAppend(const LoggingEvent& event) override;
  void close() override;

 private:
  FILE* stream_;  // not owned
};

}  // namespace Core
}  // namespace Lum
