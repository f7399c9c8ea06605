#pragma once

#include <openssl/ssl.h>

#include <functional>
#include <string>

#include "tools/backend/HttpExchange.h"

namespace Lum {
namespace Tools {

// HTTP/1.1 framing over one established TLS connection: reads requests
// (headers, Content-Length or chunked bodies, "Expect: 100-continue") and
// writes answers. Used by one connection thread only.
class HttpStream {
 public:
  enum class ReadResult { Request, Closed, Malformed, TooLarge };

  static constexpr size_t kMaxHeaderBytes = 64 * 1024;
  static constexpr size_t kMaxBodyBytes = 512 * 1024 * 1024;

  // Reads up to `size` bytes into `data`; the count, or <= 0 at the end.
  using Reader = std::function<int(char* data, int size)>;
  // Writes up to `size` bytes; the count written, or <= 0 on failure.
  using Writer = std::function<int(const char* data, int size)>;

  explicit HttpStream(SSL* ssl);
  // Over any byte source and sink, so the framing can be driven from memory.
  HttpStream(Reader reader, Writer writer);

  // Reads the next request into method, target, path, version, host, headers,
  // body and (for multipart forms) parts. Closed when the peer ended the
  // connection or went idle before a request began.
  ReadResult readRequest(RecordedRequest* request);

  bool writeReply(const Reply& reply, bool keepAlive, bool omitBody);
  // Status line and headers announcing the body, but not the body.
  bool writeHeadersOnly(const Reply& reply);
  // The whole answer, one byte at a time; `pause` runs between bytes and
  // ends the trickle when it answers false.
  bool writeTrickled(const Reply& reply, const std::function<bool()>& pause);
  // Status line, headers and the first half of the body.
  bool writeHalf(const Reply& reply);
  // A minimal answer to a request that could not be read; the connection closes.
  void writeError(int status);

  static bool WantsKeepAlive(const RecordedRequest& request);
  static const char* ReasonPhrase(int status);

 private:
  bool fill();
  bool writeAll(const std::string& data);
  bool readHead(std::string* head, ReadResult* result);
  bool readExact(size_t length, std::string* out);
  bool readLine(std::string* line);
  bool readChunkedBody(std::string* body);
  static bool ParseHead(const std::string& head, RecordedRequest* request);
  std::string statusAndHeaders(const Reply& reply, bool keepAlive) const;

  Reader reader_;
  Writer writer_;
  std::string buffer_;  // received but not yet consumed bytes
};

}  // namespace Tools
}  // namespace Lum
