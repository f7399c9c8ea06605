#include "Base/EntryGuard.h"

#include "Platform/Logger.h"

LUM_SOURCE_FILE("Base/EntryGuard");

namespace Lum {
namespace Core {

thread_local int EntryGuard::depth_ = 0;

void EntryGuard::ReportReentry(const char* entry) noexcept {
  try {
    LUM_LOG_AS(entry, FilterProperties::SERVICE_CORE, FilterProperties::CATEGORY_CLIBAPI,
               FilterProperties::SEVERITY_ERROR,
               "%s() called from inside a call into the library (a platform callback), refused",
               entry);
  } catch (...) {
    // The result code still tells the host.
  }
}

}  // namespace Core
}  // namespace Lum
