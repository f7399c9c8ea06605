#pragma once

#include <lum.h>

#include <exception>
#include <new>

namespace Lum {
namespace Core {

// Runs the body of an exported C function so that nothing it throws reaches
// the host: an exhausted heap or any other failure becomes a result code and
// a log line instead of terminating the television's process.
class EntryGuard {
 public:
  template <typename Body>
  static unsigned Run(Body&& body) noexcept {
    try {
      return body();
    } catch (const std::bad_alloc&) {
      Report("out of memory");
    } catch (const std::exception& e) {
      Report(e.what());
    } catch (...) {
      Report("unknown exception");
    }
    return kFailed;
  }

 private:
  // What a host sees when the agent failed inside: it must not mistake it
  // for success, and the codes 0-5 already have meanings.
  static constexpr unsigned kFailed = LUM_RESULT_REFUSED;
  static void Report(const char* what) noexcept;
};

}  // namespace Core
}  // namespace Lum
