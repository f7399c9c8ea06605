#pragma once

#include <cxxabi.h>

#include <exception>
#include <new>

#include "Platform/ThreadSafety.h"

namespace Lum {
namespace Core {

// Where an exception must stop: the top of every agent thread, every C entry
// and every step of the shutdown. The agent lives in the television's own
// process, so an exception that escaped would terminate the host. Whatever
// reaches a barrier is logged as "Exception contained in <where>: <what>"
// and swallowed; the caller learns of it from the result.
class ExceptionBarrier {
 public:
  // Runs `body`; false when it threw. Only a thread cancellation's unwinding
  // passes, as it must.
  // Not analysed: the body runs where the barrier stands, and a lambda says
  // itself (REQUIRES) which mutex it expects held.
  template <typename Body>
  static bool Run(const char* where, Body&& body) NO_THREAD_SAFETY_ANALYSIS {
    try {
      body();
      return true;
    } catch (abi::__forced_unwind&) {
      // Thread cancellation unwinds with an exception that must go on.
      throw;
    } catch (const std::bad_alloc&) {
      Report(where, "out of memory");
    } catch (const std::exception& e) {
      Report(where, e.what());
    } catch (...) {
      Report(where, "unknown exception");
    }
    return false;
  }

  // Logs the contained exception; never throws itself.
  static void Report(const char* where, const char* what) noexcept;
};

}  // namespace Core
}  // namespace Lum
