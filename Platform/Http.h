#pragma once

#include <curl/curl.h>

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
    uint32_t connectTimeout = 0;  // milliseconds
    uint32_t messageTimeout = 0;  // milliseconds, the whole transfer
    bool keepAlive = false;       // keep `handle` and its connection across calls
    bool mock = false;            // set by the injector: answered without traffic
    CURL* handle = nullptr;       // owned; released by Http::Cleanup
  };

  // The outcome of a call. With `bodyBuffer` set the body goes there (binary
  // downloads) instead of `body`; bytes beyond `bodyMaxLength` are dropped and
  // flagged in `bodyOverflow` without failing the transfer. `bodyLength` is
  // where the next bytes go, so the caller zeroes it before a fresh download.
  struct Response {
    long statusCode = 400;
    std::vector<std::string> headers;  // raw lines as received, CR LF included
    std::string body;
    uint8_t* bodyBuffer = nullptr;
    uint32_t bodyMaxLength = 0;
    uint32_t bodyLength = 0;
    bool bodyOverflow = false;
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

  // Releases a kept-alive handle.
  static void Cleanup(Request& request);

  static void PrintRequest(const Request& request);
  static void PrintResponse(const Request& request, const Response& response);

  static const char* VerbToString(int verb);

 private:
  // False when an option that protects the connection could not be set.
  static bool SetCommonOptions(Request& request, Response& response, curl_slist* headerList);
  static curl_httppost* SetVerbOptions(Request& request);
  static void ReadTransferInfo(Request& request, Response& response);

  // libcurl's global state is set up at most once between Initialize and
  // Terminate; both run on the start-up and shut-down paths, the mutex only
  // keeps a stray second caller from racing them.
  static Mutex globalMutex_;
  static bool curlGlobalInitDone_;  // guarded by globalMutex_
};

}  // namespace Core
}  // namespace Lum
