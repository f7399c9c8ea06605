#include "Platform/SyslogAppender.h"

#include <syslog.h>

namespace Lum {
namespace Core {

SyslogAppender::SyslogAppender(const LumJson::Value& config, const std::string& ident, int facility)
    : Appender(config), ident_(ident), facility_(facility) {
  open();
  registerSelf();
}

SyslogAppender::~SyslogAppender() {
  unregisterSelf();
  close();
}

void SyslogAppender::open() {
  openlog(ident_.c_str(), 0, facility_);
}

void SyslogAppender::close() {
  closelog();
}

int SyslogAppender::ToSyslogPriority(int severity) {
  static const int kPriorities[] = {LOG_EMERG,   LOG_ALERT,  LOG_CRIT, LOG_ERR,
                                    LOG_WARNING, LOG_NOTICE, LOG_INFO, LOG_DEBUG};
  if (severity < -100) {
    return kPriorities[0];
  }
  if (severity > 798) {
    return kPriorities[7];
  }
  return kPriorities[(severity + 1) / 100];
}

void SyslogAppender::doAppend(const LoggingEvent& event) {
  const Format* format = getFormat();
  if (format == nullptr) {
    return;
  }
  std::string text = format->format(event);
  syslog(ToSyslogPriority(event.severity) | facility_, "%s", text.c_str());
}

}  // namespace Core
}  // namespace Lum
