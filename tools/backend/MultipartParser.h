#pragma once

#include <string>
#include <vector>

#include "tools/backend/HttpExchange.h"

namespace Lum {
namespace Tools {

// Splits a multipart/form-data body into its parts. Stateless.
class MultipartParser {
 public:
  // The boundary parameter of a multipart/form-data Content-Type, empty when
  // the type is something else or names no boundary.
  static std::string Boundary(const std::string& contentType);

  // False when the body does not follow the boundary framing; *parts then
  // holds the parts read before the fault.
  static bool Parse(const std::string& boundary, const std::string& body,
                    std::vector<MultipartPart>* parts);

 private:
  static void ParsePartHeaders(const std::string& block, MultipartPart* part);
  static std::string Parameter(const std::string& value, const std::string& name);
};

}  // namespace Tools
}  // namespace Lum
