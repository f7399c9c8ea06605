#include "Base/CoreMicroService.h"

namespace Lum {
namespace Core {

const char* MicroServiceToString(MicroService microService) {
  switch (microService) {
    case CheckForNotification:
      return "CheckForNotification";
    case GetDeviceIdentity:
      return "GetDeviceIdentity";
    case SynchronizeCoreState:
      return "SynchronizeCoreState";
  }
  return "Unknown";
}

}  // namespace Core
}  // namespace Lum
