#include "Platform/ThreadUtil.h"

#include <cstdio>
#include <cstring>

#include "Platform/Logger.h"

LUM_SOURCE_FILE("Platform/ThreadUtil");

namespace Lum {
namespace Core {

namespace {
constexpr size_t kMaxThreadNameLength = 15;
constexpr size_t kThreadIdBytes = 4;
}  // namespace

void ThreadUtil::Start(Thread& thread, void* (*routine)(void*), void* arg, const char* name) {
  LUM_TRACE(FilterProperties::SERVICE_CORE);
  if (thread.started_) {
    return;
  }
  if (pthread_create(&thread.handle_, nullptr, routine, arg) != 0) {
    return;
  }
  if (name != nullptr && strlen(name) <= kMaxThreadNameLength) {
    pthread_setname_np(thread.handle_, name);
  }
  thread.started_ = true;
}

void ThreadUtil::Join(Thread& thread) {
  LUM_TRACE(FilterProperties::SERVICE_CORE);
  if (thread.started_ && pthread_join(thread.handle_, nullptr) == 0) {
    thread.started_ = false;
  }
}

void ThreadUtil::Detach(Thread& thread) {
  LUM_TRACE(FilterProperties::SERVICE_CORE);
  if (thread.started_ && pthread_detach(thread.handle_) == 0) {
    thread.started_ = false;
  }
}

// No function trace here: the logger calls this while it holds its own
// mutex, and a trace line from inside would deadlock on it.
std::string ThreadUtil::GetThreadIdAsString() {
  pthread_t self = pthread_self();
  unsigned char bytes[sizeof self];
  memcpy(bytes, &self, sizeof self);
  char text[2 * kThreadIdBytes + 1];
  size_t count = sizeof self < kThreadIdBytes ? sizeof self : kThreadIdBytes;
  for (size_t i = 0; i < count; ++i) {
    snprintf(text + 2 * i, 3, "%02x", bytes[i]);
  }
  return std::string(text, 2 * count);
}

}  // namespace Core
}  // namespace Lum
