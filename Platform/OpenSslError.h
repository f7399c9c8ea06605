#pragma once

#include <string>

namespace Lum {
namespace Core {

// The crypto utilities report every OpenSSL failure the same way: the text of
// the oldest error queued on the calling thread. OpenSSL's error queue is per
// thread, so callers clear it before an operation and drain it after logging,
// which keeps one failure's errors from being reported against the next call.
class OpenSslError {
 public:
  // Empties the calling thread's error queue.
  static void Clear();
  // Takes the oldest queued error, formats it with ERR_error_string and
  // empties the rest of the queue.
  static std::string Take();
};

}  // namespace Core
}  // namespace Lum
