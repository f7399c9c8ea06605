#include "Platform/RandomUtil.h"

#include <openssl/rand.h>

#include <cstring>

#include "Platform/Logger.h"

LUM_SOURCE_FILE("Platform/RandomUtil");

namespace Lum {
namespace Core {

void RandomUtil::SetSeed(const void* seed, int length) {
  LUM_TRACE(FilterProperties::SERVICE_CORE);
  RAND_seed(seed, length);
}

void RandomUtil::GetBytes(void* buffer, int length) {
  LUM_TRACE(FilterProperties::SERVICE_CORE);
  if (RAND_bytes(static_cast<unsigned char*>(buffer), length) != 1 && length > 0) {
    memset(buffer, 0, static_cast<size_t>(length));
  }
}

void RandomUtil::Cleanup() {
  LUM_TRACE(FilterProperties::SERVICE_CORE);
}

}  // namespace Core
}  // namespace Lum
