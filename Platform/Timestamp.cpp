#include "Platform/Timestamp.h"

#include <sys/time.h>

namespace Lum {
namespace Core {

Timestamp::Timestamp() : sec(0), usec(0) {
  struct timeval now {};
  gettimeofday(&now, nullptr);
  sec = static_cast<int32_t>(now.tv_sec);
  usec = static_cast<int32_t>(now.tv_usec);
}

}  // namespace Core
}  // namespace Lum
