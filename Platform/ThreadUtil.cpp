#include "Platform/ThreadUtil.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "Platform/ExceptionBarrier.h"
#include "Platform/Logger.h"

LUM_SOURCE_FILE("Platform/ThreadUtil");

namespace Lum {
namespace Core {

namespace {
constexpr size_t kMaxThreadNameLength = 15;
constexpr size_t kThreadIdBytes = 4;

// What a new thread runs, handed over from Start.
struct Launch {
  void* (*routine)(void*);
  void* arg;
  const char* name;  // for the log; a literal that outlives the thread
};

// Every agent thread starts here, so nothing it throws can reach the top of
// the thread, where the runtime would terminate the television's process.
void* ThreadMain(void* data) {
  const Launch launch = *static_cast<Launch*>(data);
  delete static_cast<Launch*>(data);
  void* result = nullptr;
  ExceptionBarrier::Run(launch.name, [&] { result = launch.routine(launch.arg); });
  return result;
}
}  // namespace

void ThreadUtil::Start(Thread& thread, void* (*routine)(void*), void* arg, const char* name) {
  LUM_TRACE(FilterProperties::SERVICE_CORE);
  if (thread.started_) {
    return;
  }
  // Out of memory is a thread that could not be made, like any other
  // failure here: callers have a way on without the thread (the stop does
  // its work on the caller's thread), but not past an exception.
  Launch* launch = new (std::nothrow) Launch{routine, arg, name != nullptr ? name : "a thread"};
  if (launch == nullptr) {
    return;
  }
  if (pthread_create(&thread.handle_, nullptr, ThreadMain, launch) != 0) {
    delete launch;
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
