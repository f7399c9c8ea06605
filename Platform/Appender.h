#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Platform/FilterProperties.h"
#include "Platform/Format.h"
#include "Platform/LoggingEvent.h"
#include "Platform/LumJson.h"
#include "Platform/Mutex.h"

namespace Lum {
namespace Core {

// A destination for log lines with its own line format and its own filter
// table (the highest severity passed per service and category). Every
// appender registers itself under its name in a process-wide registry when
// constructed and leaves it when destroyed.
//
// Locking: the registry (AllAppenders, DisplacedAppenders, the severity
// summary) is guarded by AppenderMapMutex. name_, format_ and filter_ are set
// in the constructor and never change afterwards. doAppend and close are
// called under the logger mutex, which is always taken before
// AppenderMapMutex.
class Appender {
 public:
  virtual ~Appender();
  Appender(const Appender&) = delete;
  Appender& operator=(const Appender&) = delete;

  // Writes one event. An appender without a format skips the line.
  virtual void doAppend(const LoggingEvent& event) = 0;
  virtual void close() = 0;

  const std::string& getName() const { return name_; }
  const Format* getFormat() const { return format_.get(); }
  // True when the filter entry for service and category is at least
  // `severity`; classifications outside the table are never enabled.
  bool isLogEnabled(int service, int category, int severity) const;

  // Registers under the appender's name. An appender already registered
  // under that name is displaced, not deleted: it stays alive (and is deleted
  // by DeleteAllAppenders) but no longer receives lines.
  static void AddAppender(Appender* appender) EXCLUDES(AppenderMapMutex);
  // The registered appenders in name order (a snapshot).
  static std::vector<Appender*> GetAllAppenders() EXCLUDES(AppenderMapMutex);
  // Runs `visit` on each registered appender in name order, holding
  // AppenderMapMutex throughout so none can be destroyed meanwhile.
  static void VisitAllAppenders(const std::function<void(Appender&)>& visit)
      EXCLUDES(AppenderMapMutex);
  static void DeleteAllAppenders() EXCLUDES(AppenderMapMutex);

  // The highest severity that any registered appender passes for this
  // service and category, -1 when none does. Lock-free: the logger's test
  // reads it on every log call.
  static int HighestEnabledSeverity(int service, int category);

  static Mutex& AppenderMapMutex;

 protected:
  // Reads "format", "filters", "type" and "argument" from one element of
  // the "loggers" array. Registration is left to the concrete class, which
  // calls registerSelf() once it is fully built.
  explicit Appender(const LumJson::Value& config);
  void registerSelf() { AddAppender(this); }
  // Leaves the registry; safe to call more than once. Concrete destructors
  // call it first so that no line reaches a half-destroyed appender.
  void unregisterSelf() EXCLUDES(AppenderMapMutex);

 private:
  using AppenderMap = std::map<std::string, Appender*>;

  // Created on first use; caller holds AppenderMapMutex.
  static AppenderMap& GetAppenderMap() REQUIRES(AppenderMapMutex);
  // Caller holds AppenderMapMutex.
  static void RecomputeHighestSeverities() REQUIRES(AppenderMapMutex);
  void readFilters(const LumJson::Value& filters);

  std::string name_;
  std::unique_ptr<Format> format_;  // null when "format" names no known format
  int filter_[FilterProperties::SERVICE_COUNT][FilterProperties::CATEGORY_COUNT];

  static AppenderMap* AllAppenders GUARDED_BY(AppenderMapMutex);
  static std::vector<Appender*>* DisplacedAppenders GUARDED_BY(AppenderMapMutex);
};

}  // namespace Core
}  // namespace Lum
