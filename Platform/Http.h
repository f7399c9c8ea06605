#pragma once

#include <curl/curl.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "Platform/Mutex.h"

namespace Lum {
namespace Core {

// The agent's one HTTPS transport: a static class over libcurl's easy
// interface. Every transfer is TLS with both ends verified; the client
// certificate, its key and the trusted CAs come from memory, never from files,
// and only the given CAs are trusted. A request is not sent at all when libcurl
// refuses one of the options that protect it. Transport failures of any kind
// read as status 400, so callers treat them like a rejected request.
class Http {
 public:
  // A fixed underlying type keeps any number a valid Verb: values outside the
  // three names arrive from persisted or scripted input and fall back to GET.
  enum Verb : int { POST = 0, GET = 1, DELETE = 2 };

  // One back-end call. The PEM pointers and `data` are borrowed from the
  // caller. `headers` and `body` are consumed by Perform: they are empty
  // afterwards, so a request must be refilled before it is sent again.
  // A request and its handle belong to one thread at a time.
  struct Request {
    Verb verb = POST;
    const char* clientCertificate = nullptr;  // client certificate, then any intermediates
    const char* clientKey = nullptr;
    const char* clientKeyPassword = nullptr;  // may be null for a plain key
    const char* caCertificates = nullptr;     // the only trusted roots
    std::string url;
    std::vector<std::string> headers;  // complete lines, "Name: value"
    std::string body;
    std::string token;  // second multipart part when `data` is set
    const uint8_t* data = nullptr;
    uint32_t dataLength = 0;
    // Milliseconds, as clamped by ClampConnectTimeoutMs. A server that sends
    // nothing for this long, rounded up to whole seconds, has stalled and the
    // transfer ends there.
    uint32_t connectTimeout = 0;
    // Milliseconds for the whole transfer, as clamped by ClampMessageTimeoutMs.
    uint32_t messageTimeout = 0;
    bool keepAlive = false;  // keep `handle` and its connection across calls
    bool mock = false;       // set by the injector: answered without traffic
    CURL* handle = nullptr;  // owned; released by Http::Cleanup
    // Not owned; may be set from another thread. While it reads true a
    // transfer in progress is abandoned, a request not yet sent is not sent
    // and a canned answer's wait ends, all leaving status 400: a terminating
    // agent never waits on the network.
    const std::atomic<bool>* cancel = nullptr;

    bool cancelled() const { return cancel != nullptr && cancel->load(); }
  };

  // The outcome of a call. With `bodyBuffer` set the body goes there (binary
  // downloads) instead of `body`; bytes beyond `bodyMaxLength` are dropped and
  // flagged in `bodyOverflow` without failing the transfer. `bodyLength` is
  // where the next bytes go, so the caller zeroes it before a fresh download.
  struct Response {
    long statusCode = 400;
    // Whether statusCode is the server's own answer (or the injector's canned
    // one), as opposed to the 400 of a transfer that failed, even after the
    // headers arrived: a refusal is final, a failure is worth a retry.
    bool answered = false;
    std::vector<std::string> headers;  // raw lines as received, CR LF included
    std::string body;
    uint8_t* bodyBuffer = nullptr;
    uint32_t bodyMaxLength = 0;
    uint32_t bodyLength = 0;
    bool bodyOverflow = false;
    // With `bodyBuffer`: end the transfer as soon as the body outgrows
    // `bodyMaxLength` rather than drop the rest until the server is done, so
    // that a server sending more than asked for costs no more time or
    // traffic. The status of such a cut-off answer is still the server's.
    bool stopAtMaxLength = false;
    bool uploadComplete = false;
    double uploadSpeed = 0;    // bytes per second
    double downloadSpeed = 0;  // bytes per second
  };

  // The first argument is accepted for interface stability and ignored:
  // OpenSSL 3 initialises itself.
  static void Initialize(bool sslCryptoInit, bool curlGlobalInit);
  static void Terminate();

  // Synchronous; never throws. Consults the injector first, so a mocked
  // request returns its canned answer without any network activity.
  static void Perform(Request& request, Response& response);

  // The time-outs libcurl is given: at least a second each, since 0 would
  // mean no limit, and at most 2 minutes to connect and an hour for the
  // whole transfer, which also keeps them within a 32-bit long.
  static constexpr uint32_t kMinTimeoutMs = 1000;
  static constexpr uint32_t kMaxConnectTimeoutMs = 120000;
  static constexpr uint32_t kMaxMessageTimeoutMs = 3600000;
  static uint32_t ClampConnectTimeoutMs(uint32_t milliseconds);
  static uint32_t ClampMessageTimeoutMs(uint32_t milliseconds);

  // Releases a kept-alive handle.
  static void Cleanup(Request& request);

  static void PrintRequest(const Request& request);
  static void PrintResponse(const Request& request, const Response& response);

  static const char* VerbToString(int verb);

 private:
  // Perform's body; Perform frees the handle if it throws.
  static void Transfer(Request& request, Response& response);

  // libcurl's global state is set up at most once between Initialize and
  // Terminate; both run on the start-up and shut-down paths, the mutex only
  // keeps a stray second caller from racing them.
  static Mutex& globalMutex_;
  static bool curlGlobalInitDone_ GUARDED_BY(globalMutex_);
};

}  // namespace Core
}  // namespace Lum
