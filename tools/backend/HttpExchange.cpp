#include "tools/backend/HttpExchange.h"

#include <strings.h>

namespace Lum {
namespace Tools {

std::string RecordedRequest::header(const std::string& name) const {
  for (const auto& field : headers) {
    if (strcasecmp(field.first.c_str(), name.c_str()) == 0) {
      return field.second;
    }
  }
  return std::string();
}

bool RecordedRequest::hasHeader(const std::string& name) const {
  for (const auto& field : headers) {
    if (strcasecmp(field.first.c_str(), name.c_str()) == 0) {
      return true;
    }
  }
  return false;
}

const MultipartPart* RecordedRequest::part(const std::string& name) const {
  for (const auto& candidate : parts) {
    if (candidate.name == name) {
      return &candidate;
    }
  }
  return nullptr;
}

}  // namespace Tools
}  // namespace Lum
