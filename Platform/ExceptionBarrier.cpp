#include "Platform/ExceptionBarrier.h"

#include "Platform/Logger.h"

LUM_SOURCE_FILE("Platform/ExceptionBarrier");

namespace Lum {
namespace Core {

void ExceptionBarrier::Report(const char* where, const char* what) noexcept {
  try {
    LUM_LOG(FilterProperties::SERVICE_CORE, FilterProperties::CATEGORY_STATE,
            FilterProperties::SEVERITY_ERROR, "Exception contained in %s: %s", where, what);
  } catch (...) {
    // Logging failed as well (the heap is exhausted, say); the caller's
    // result still tells what happened.
  }
}

}  // namespace Core
}  // namespace Lum
