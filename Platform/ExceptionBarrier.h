#pragma once

#include <cxxabi.h>

#include <exception>
#include <new>

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
  template <typename Body>
  static bool Run(const char* where, Body&& body) {
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
