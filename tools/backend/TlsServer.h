#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "tools/backend/HttpExchange.h"

namespace Lum {
namespace Tools {

// TLS material and protocol range of the server.
struct TlsSettings {
  std::string certPem;      // server certificate
  std::string keyPem;       // its key
  std::string issuerPem;    // the issuing CA, sent as chain (clients compute OCSP ids from it)
  std::string clientCaPem;  // CA that client certificates must chain to
  TlsVersion minVersion = TlsVersion::Tls1_2;
  TlsVersion maxVersion = TlsVersion::Tls1_3;
};

// An HTTP/1.1 server over mutual TLS on one listening socket: one accepting
// thread and one joinable thread per connection. It parses requests
// (Content-Length and chunked bodies, "Expect: 100-continue", multipart
// forms), hands each to the handler and writes, drops or stalls the answer as
// the handler's Reply says. Methods are taken verbatim, so a lower-case
// "delete" reaches the handler as such.
//
// configure() and setOcspResponse() may be called while serving; they take
// effect for new connections.
class TlsServer {
 public:
  struct Callbacks {
    // Fills the reply; the request is complete (TLS facts included).
    std::function<void(RecordedRequest&, Reply&)> handle;
    // After the reply went out (status set; 0 for a dropped connection).
    std::function<void(const RecordedRequest&)> answered;
    // Asked once per connection with the name the client asked for, during
    // the handshake; unset or None: a normal connection.
    std::function<ConnectionFault(const std::string& serverName)> connectionFault;
  };

  TlsServer(Callbacks callbacks, std::chrono::milliseconds idleTimeout);
  ~TlsServer();
  TlsServer(const TlsServer&) = delete;
  TlsServer& operator=(const TlsServer&) = delete;

  bool configure(const TlsSettings& settings, std::string* error);
  // DER bytes to staple; empty: answer a status request without a response.
  void setOcspResponse(const std::string& der);

  bool start(const std::string& bindAddress, int port, std::string* error);
  // Wakes stalled answers, unblocks every connection and joins all threads.
  void stop();
  int port() const { return port_; }

 private:
  struct Connection {
    int fd = -1;  // guarded by connectionMutex_; -1 once closed
    SSL* ssl = nullptr;
    std::thread thread;
    bool finished = false;              // guarded by connectionMutex_
    bool silentAfterHandshake = false;  // set during the handshake, on the connection's thread
  };

  static int OcspStatusCallback(SSL* ssl, void* arg);
  static int ServerNameCallback(SSL* ssl, int* alert, void* arg);
  int applyConnectionFault(SSL* ssl, int* alert);
  int stapleOcsp(SSL* ssl);

  void acceptLoop();
  void startConnection(int fd);
  void reapFinishedConnections();
  void serveConnection(Connection* connection);
  void closeConnection(Connection* connection, bool graceful);
  bool waitForStall(std::chrono::milliseconds limit);

  Callbacks callbacks_;                          // immutable
  const std::chrono::milliseconds idleTimeout_;  // immutable
  int listenFd_ = -1;                            // owned by start()/stop()
  int wakeFd_ = -1;                              // eventfd waking acceptLoop on stop
  std::atomic<int> port_{0};
  std::thread acceptThread_;

  std::mutex ctxMutex_;
  SSL_CTX* ctx_ = nullptr;  // guarded by ctxMutex_; connections hold their own reference
  std::string ocspDer_;     // guarded by ctxMutex_
  bool ocspSet_ = false;    // guarded by ctxMutex_

  std::mutex connectionMutex_;
  std::list<std::unique_ptr<Connection>> connections_;  // guarded by connectionMutex_

  std::mutex stopMutex_;
  std::condition_variable stopCv_;  // wakes stalled answers
  bool stopping_ = false;           // guarded by stopMutex_
};

}  // namespace Tools
}  // namespace Lum
