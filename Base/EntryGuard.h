#pragma once

#include <lum.h>

#include "Platform/ExceptionBarrier.h"

namespace Lum {
namespace Core {

// Runs the body of an exported C function `entry` (its name, for the log) so
// that nothing it throws reaches the host: an exhausted heap or any other
// failure becomes a result code and a log line instead of terminating the
// television's process.
//
// It also refuses a call made while the same thread is already inside one:
// that happens when a platform callback that the agent calls under its own
// mutex (during LumInit, say) calls back into the library, which would wait
// for that mutex for ever.
class EntryGuard {
 public:
  template <typename Body>
  static unsigned Run(const char* entry, Body&& body) {
    if (depth_ > 0) {
      ReportReentry(entry);
      return kFailed;
    }
    ++depth_;
    unsigned result = kFailed;
    ExceptionBarrier::Run(entry, [&] { result = body(entry); });
    --depth_;
    return result;
  }

 private:
  // What a host sees when the agent failed inside or refused a re-entry: it
  // must not mistake it for success, and the codes 0-5 already have meanings.
  static constexpr unsigned kFailed = LUM_RESULT_REFUSED;
  static void ReportReentry(const char* entry) noexcept;

  // C entries active on this thread.
  static thread_local int depth_;
};

}  // namespace Core
}  // namespace Lum
