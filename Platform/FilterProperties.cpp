#include "Platform/FilterProperties.h"

namespace Lum {
namespace Core {

namespace {
const char* const kUnknown = "UNKNOWN";
const char* const kServiceNames[] = {"core", "ds", "sv", "su", "drmp"};
const char* const kCategoryNames[] = {"state",      "flow", "clibapi",
                                      "webservice", "test", "supervisor"};
const char* const kSeverityNames[] = {"disabled", "fatal", "error", "warning",
                                      "info",     "debug", "trace"};

template <size_t N>
const char* NameOf(const char* const (&names)[N], int value) {
  if (value < 0 || static_cast<size_t>(value) >= N) {
    return kUnknown;
  }
  return names[value];
}

template <size_t N>
int ValueOf(const char* const (&names)[N], const std::string& name) {
  for (size_t i = 0; i < N; ++i) {
    if (name == names[i]) {
      return static_cast<int>(i);
    }
  }
  return -1;
}
}  // namespace

static_assert(sizeof kServiceNames / sizeof kServiceNames[0] == FilterProperties::SERVICE_COUNT,
              "one name per service");
static_assert(sizeof kCategoryNames / sizeof kCategoryNames[0] == FilterProperties::CATEGORY_COUNT,
              "one name per category");
static_assert(sizeof kSeverityNames / sizeof kSeverityNames[0] == FilterProperties::SEVERITY_COUNT,
              "one name per severity");

const char* FilterProperties::GetServiceName(int service) {
  return NameOf(kServiceNames, service);
}

const char* FilterProperties::GetCategoryName(int category) {
  return NameOf(kCategoryNames, category);
}

const char* FilterProperties::GetSeverityName(int severity) {
  return NameOf(kSeverityNames, severity);
}

int FilterProperties::GetServiceValue(const std::string& name) {
  return ValueOf(kServiceNames, name);
}

int FilterProperties::GetCategoryValue(const std::string& name) {
  return ValueOf(kCategoryNames, name);
}

int FilterProperties::GetSeverityValue(const std::string& name) {
  return ValueOf(kSeverityNames, name);
}

}  // namespace Core
}  // namespace Lum
