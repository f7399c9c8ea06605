#pragma once

#include <string>
#include <vector>

#include "Platform/Http.h"
#include "Platform/LumJson.h"
#include "Platform/Mutex.h"

namespace Lum {
namespace Core {

// Scripted back-end answers for tests and bench set-ups. Each entry matches
// request URLs by suffix and answers with its canned responses in turn, the
// last one repeating; a matched request is marked as mocked and never sent.
// With no entries configured it has no effect.
class Injector {
 public:
  struct CannedResponse {
    unsigned statusCode = 0;
    unsigned duration = 0;  // seconds to wait before answering; a cancel cuts it short
    std::string body = "{}";
    std::vector<std::string> headers;  // whole header lines
  };

  struct Entry {
    std::string suffix;
    std::vector<CannedResponse> responses;  // never empty
    unsigned calls = 0;                     // never reset until terminate
  };

  static Injector& Instance();

  // Builds the entries from the "injectors" array, replacing any earlier
  // ones. The walk stops at the first malformed element; entries before it
  // are kept.
  void initialize(const LumJson::Value& injectors);

  // Clears request.mock, then applies every matching entry in order. A
  // request cancelled before or during an answer's wait gets no further
  // answers, like a transfer abandoned on the network.
  void mock(Http::Request& request, Http::Response& response);

  void terminate();

  // Copy of the current entries, for diagnostics and tests.
  std::vector<Entry> entries();

 private:
  Injector() = default;

  static bool ParseEntry(const LumJson::Value& element, Entry* entry);
  static CannedResponse ParseResponse(const LumJson::Value& element);
  std::vector<CannedResponse> takeMatchingResponses(const std::string& url);
  // False, with nothing applied, when the request was cancelled first.
  static bool Apply(const CannedResponse& canned, const Http::Request& request,
                    Http::Response& response);

  // Held only while entries are chosen and counted, never while a canned
  // duration is waited out, so slow answers on one thread do not hold up
  // others.
  Mutex mutex_;
  std::vector<Entry> entries_ GUARDED_BY(mutex_);
};

}  // namespace Core
}  // namespace Lum
