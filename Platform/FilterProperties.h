#pragma once

#include <string>

namespace Lum {
namespace Core {

// The three axes every log line is classified by, and their names as they
// appear in configuration and in the formatted lines.
class FilterProperties {
 public:
  enum LogService { SERVICE_CORE = 0, SERVICE_DS, SERVICE_SV, SERVICE_SU, SERVICE_DRMP, SERVICE_COUNT };
  enum LogCategory {
    CATEGORY_STATE = 0,
    CATEGORY_FLOW,
    CATEGORY_CLIBAPI,
    CATEGORY_WEBSERVICE,
    CATEGORY_TEST,
    CATEGORY_SUPERVISOR,
    CATEGORY_COUNT
  };
  enum LogSeverity {
    SEVERITY_DISABLED = 0,
    SEVERITY_FATAL,
    SEVERITY_ERROR,
    SEVERITY_WARNING,
    SEVERITY_INFO,
    SEVERITY_DEBUG,
    SEVERITY_TRACE,
    SEVERITY_COUNT
  };
  static const int MESSAGE_SIZE = 8;

  // Number to name; a number outside the table gives "UNKNOWN".
  static const char* GetServiceName(int service);
  static const char* GetCategoryName(int category);
  static const char* GetSeverityName(int severity);

  // Exact, case-sensitive name to number; an unknown name gives -1.
  static int GetServiceValue(const std::string& name);
  static int GetCategoryValue(const std::string& name);
  static int GetSeverityValue(const std::string& name);
};

}  // namespace Core
}  // namespace Lum
