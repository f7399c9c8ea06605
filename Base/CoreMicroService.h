#pragma once

namespace Lum {
namespace Core {

// The back-end calls the core manager schedules. Plain values; nothing to
// guard.
enum MicroService {
  CheckForNotification = 0,
  GetDeviceIdentity = 1,
  SynchronizeCoreState = 2,
};

// The call's name as logged ("GetDeviceIdentity"); "Unknown" for any other
// number.
const char* MicroServiceToString(MicroService microService);

}  // namespace Core
}  // namespace Lum
