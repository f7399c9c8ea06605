#pragma once

#include <string>

#include "Platform/Appender.h"

namespace Lum {
namespace Core {

// Sends lines to syslog under an ident and facility.
// ident_ and facility_ are set at construction; open, close and doAppend run
// under the logger mutex or during construction and destruction.
class SyslogAppender final : public Appender {
 public:
  SyslogAppender(const LumJson::Value& config, const std::string& ident, int facility);
  ~SyslogAppender() override;

  void doAppend(const LoggingEvent& event) override;
  void close() override;
  virtual void open();

  // Every agent severity (0..6) maps to priority 0: receivers have always
  // seen the agent's lines at that priority and tell levels apart by the
  // severity name inside the text, so the mapping is kept as it is.
  static int ToSyslogPriority(int severity);

 private:
  std::string ident_;  // openlog keeps a pointer to it, so it must live as long as the appender
  int facility_;
};

}  // namespace Core
}  // namespace Lum
