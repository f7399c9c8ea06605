#pragma once

namespace Lum {
namespace Core {

// Logs "Function Enter" on construction and "Function Return" on destruction
// (category flow, severity debug) at the given location, when that is
// enabled for the service. Lives on one thread's stack; no mutex needed.
class FunctionTrace {
 public:
  FunctionTrace(const char* function, const char* file, int line, int service);
  ~FunctionTrace();
  FunctionTrace(const FunctionTrace&) = delete;
  FunctionTrace& operator=(const FunctionTrace&) = delete;

 private:
  const char* function_;
  const char* file_;
  int line_;
  int service_;
  int category_;
  int severity_;
};

}  // namespace Core
}  // namespace Lum
