#include "Project/CommandGetAvailableLocales.h"

namespace Lum {
namespace Sv {

int CommandGetAvailableLocales::executeHandler(const LumJson::Value& /*inputs*/,
                                               LumJson::Value& result) {
  // The trailing comma belongs to the value the back end expects.
  result["Accept-Language"] = "en-US,";
  result["DEFAULT_LOCALE"] = "en-US";
  return 0;
}

}  // namespace Sv
}  // namespace Lum
