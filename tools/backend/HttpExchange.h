#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace Lum {
namespace Tools {

// One part of a multipart/form-data body.
struct MultipartPart {
  std::string name;         // from Content-Disposition: form-data; name="..."
  std::string filename;     // filename="..." (empty when absent)
  std::string contentType;  // the part's Content-Type (empty when absent)
  std::string content;      // raw bytes
};

// A request as the server received it. Plain value: copies are handed out.
struct RecordedRequest {
  unsigned long sequence = 0;  // 1, 2, ... in order of arrival
  std::string method;          // exactly as sent, e.g. "POST" or "delete"
  std::string target;          // request target including any query
  std::string path;            // target without the query
  std::string version;         // "HTTP/1.1"
  std::string host;            // the Host header
  std::vector<std::pair<std::string, std::string>> headers;  // in arrival order
  std::string body;                                          // decoded (de-chunked)
  std::vector<MultipartPart> parts;  // filled for multipart/form-data bodies
  std::string clientCommonName;      // CN of the verified client certificate
  std::string serverName;            // SNI sent by the client (empty when none)
  std::string tlsVersion;            // "TLSv1.2", "TLSv1.3", ...
  // What the server did: the status sent (also for a stalled answer), 0 for a
  // dropped connection, -1 while the answer is still being prepared.
  int status = -1;

  // First header of that name (case-insensitive), empty when absent.
  std::string header(const std::string& name) const;
  bool hasHeader(const std::string& name) const;
  // First part of that name, nullptr when absent.
  const MultipartPart* part(const std::string& name) const;
};

// What a route answers.
struct Reply {
  enum class Action {
    Answer,             // send status, headers and body
    Drop,               // close the connection without any answer
    StallAfterHeaders,  // send status line and headers, then hang until stallLimit or stop
    Trickle,            // send the whole answer one byte every byteInterval (until stop)
    ResetMidBody,       // send status line, headers and half the body, then a TCP reset
    CloseNotify,        // send TLS's closing alert instead of any answer
  };
  Action action = Action::Answer;
  int status = 200;
  std::string contentType = "application/json";
  std::vector<std::pair<std::string, std::string>> headers;  // extra headers
  std::string body;
  std::chrono::milliseconds stallLimit{0};
  std::chrono::milliseconds byteInterval{0};

  void json(int statusCode, const std::string& text) {
    status = statusCode;
    contentType = "application/json";
    body = text;
  }
};

// How the server treats a new connection, decided by the name the client
// asked for (SNI) before the handshake completes.
enum class ConnectionFault {
  None,
  SilentAfterAccept,     // read the client's hello, then send nothing (until the limit or stop)
  SilentAfterHandshake,  // complete the handshake, then neither read nor send
  AlertInHandshake,      // end the handshake with a fatal alert
};

// Protocol versions the server may offer.
enum class TlsVersion { Tls1_1, Tls1_2, Tls1_3 };

// What the server staples in answer to a client's status request (see
// OcspStatus for the answers).
enum class OcspMode { Good, Revoked, Expired, Stale, FreshWithoutNextUpdate, None };

}  // namespace Tools
}  // namespace Lum
