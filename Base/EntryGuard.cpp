#include "Base/EntryGuard.h"

#include "Platform/Logger.h"

LUM_SOURCE_FILE("Base/EntryGuard");

namespace Lum {
namespace Core {

void EntryGuard::Report(const char* what) noexcept {
  try {
    LUM_LOG(FilterProperties::SERVICE_CORE, FilterProperties::CATEGORY_CLIBAPI,
            FilterProperties::SEVERITY_ERROR, "Exception contained at the C boundary: %s", what);
  } catch (...) {
    // Logging itself failed; the result code still tells the host.
  }
}

}  // namespace Core
}  // namespace Lum
