#include "tools/backend/TlsServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/backend/HttpStream.h"
#include "tools/pki/OpenSslHandles.h"

namespace Lum {
namespace Tools {

namespace {

constexpr int kListenBacklog = 64;
// A client that stops reading a large answer does not hold a thread forever.
constexpr int kSendTimeoutSeconds = 30;
constexpr unsigned char kSessionContext[] = "lum-backend";
// How long a connection fault keeps a client waiting, unless stop comes first.
constexpr std::chrono::seconds kSilenceLimit{120};

// The back end's threads carry one name, so a test that injects faults into
// the whole process (a failing allocator) can leave the back end out.
void NameBackendThread() {
  pthread_setname_np(pthread_self(), "lum-backend");
}

int ProtocolVersion(TlsVersion version) {
  switch (version) {
    case TlsVersion::Tls1_1:
      return TLS1_1_VERSION;
    case TlsVersion::Tls1_2:
      return TLS1_2_VERSION;
    case TlsVersion::Tls1_3:
      break;
  }
  return TLS1_3_VERSION;
}

bool Fail(std::string* error, const std::string& text) {
  if (error != nullptr) {
    *error = text;
  }
  return false;
}

void SetSocketTimeouts(int fd, std::chrono::milliseconds receive) {
  timeval receiveTimeout{};
  receiveTimeout.tv_sec = static_cast<time_t>(receive.count() / 1000);
  receiveTimeout.tv_usec = static_cast<suseconds_t>((receive.count() % 1000) * 1000);
  timeval sendTimeout{};
  sendTimeout.tv_sec = kSendTimeoutSeconds;
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &receiveTimeout, sizeof(receiveTimeout));
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendTimeout, sizeof(sendTimeout));
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
}

std::string ServerNameOf(SSL* ssl) {
  const char* name = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
  return name != nullptr ? name : std::string();
}

// OpenSSL writes to its sockets with write(), so a client that hangs up
// before the answer (or the closing alert) would kill the whole process with
// SIGPIPE. A host that installed its own handler keeps it.
void IgnoreBrokenPipes() {
  struct sigaction current {};
  if (sigaction(SIGPIPE, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) {
    signal(SIGPIPE, SIG_IGN);
  }
}

// A zero linger time makes close() send a reset instead of a FIN.
void ResetOnClose(int fd) {
  linger abort{};
  abort.l_onoff = 1;
  abort.l_linger = 0;
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort));
}

bool IsHead(const RecordedRequest& request) {
  return strcasecmp(request.method.c_str(), "HEAD") == 0;
}

}  // namespace

TlsServer::TlsServer(Callbacks callbacks, std::chrono::milliseconds idleTimeout)
    : callbacks_(std::move(callbacks)), idleTimeout_(idleTimeout) {}

TlsServer::~TlsServer() {
  stop();
  std::lock_guard<std::mutex> lock(ctxMutex_);
  SSL_CTX_free(ctx_);
  ctx_ = nullptr;
}

bool TlsServer::configure(const TlsSettings& settings, std::string* error) {
  SslCtxPtr ctx(SSL_CTX_new(TLS_server_method()));
  X509Ptr cert = ReadCertPem(settings.certPem);
  X509Ptr issuer = ReadCertPem(settings.issuerPem);
  X509Ptr clientCa = ReadCertPem(settings.clientCaPem);
  EvpPkeyPtr key = ReadKeyPem(settings.keyPem);
  if (!ctx || !cert || !issuer || !clientCa || !key) {
    return Fail(error, OpenSslErrorText("reading the server's TLS material"));
  }
  SSL_CTX* raw = ctx.get();
  // OpenSSL 3 refuses TLS 1.1 at the default security level; a server that
  // must offer it (to prove that clients refuse it) drops to level 0.
  if (settings.minVersion == TlsVersion::Tls1_1) {
    SSL_CTX_set_security_level(raw, 0);
  }
  bool ok = SSL_CTX_set_min_proto_version(raw, ProtocolVersion(settings.minVersion)) == 1 &&
            SSL_CTX_set_max_proto_version(raw, ProtocolVersion(settings.maxVersion)) == 1 &&
            SSL_CTX_use_certificate(raw, cert.get()) == 1 &&
            SSL_CTX_add1_chain_cert(raw, issuer.get()) == 1 &&
            SSL_CTX_use_PrivateKey(raw, key.get()) == 1 && SSL_CTX_check_private_key(raw) == 1 &&
            X509_STORE_add_cert(SSL_CTX_get_cert_store(raw), clientCa.get()) == 1 &&
            SSL_CTX_add_client_CA(raw, clientCa.get()) == 1 &&
            SSL_CTX_set_session_id_context(raw, kSessionContext, sizeof(kSessionContext)) == 1;
  if (!ok) {
    return Fail(error, OpenSslErrorText("setting up the server's TLS context"));
  }
  SSL_CTX_set_verify(raw, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  // Every connection does a full handshake, so every one gets a stapled answer.
  SSL_CTX_set_session_cache_mode(raw, SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(raw, 0);
  SSL_CTX_set_options(raw, SSL_OP_NO_TICKET);
  SSL_CTX_set_tlsext_status_cb(raw, &TlsServer::OcspStatusCallback);
  SSL_CTX_set_tlsext_status_arg(raw, this);
  SSL_CTX_set_tlsext_servername_callback(raw, &TlsServer::ServerNameCallback);
  SSL_CTX_set_tlsext_servername_arg(raw, this);

  std::lock_guard<std::mutex> lock(ctxMutex_);
  SSL_CTX_free(ctx_);
  ctx_ = ctx.release();
  return true;
}

void TlsServer::setOcspResponse(const std::string& der) {
  std::lock_guard<std::mutex> lock(ctxMutex_);
  ocspDer_ = der;
  ocspSet_ = !der.empty();
}

int TlsServer::OcspStatusCallback(SSL* ssl, void* arg) {
  return static_cast<TlsServer*>(arg)->stapleOcsp(ssl);
}

int TlsServer::stapleOcsp(SSL* ssl) {
  std::lock_guard<std::mutex> lock(ctxMutex_);
  if (!ocspSet_) {
    return SSL_TLSEXT_ERR_NOACK;
  }
  // OpenSSL takes ownership of the buffer, so each handshake gets a copy.
  auto* copy = static_cast<unsigned char*>(OPENSSL_malloc(ocspDer_.size()));
  if (copy == nullptr) {
    return SSL_TLSEXT_ERR_NOACK;
  }
  memcpy(copy, ocspDer_.data(), ocspDer_.size());
  if (SSL_set_tlsext_status_ocsp_resp(ssl, copy, static_cast<long>(ocspDer_.size())) != 1) {
    OPENSSL_free(copy);
    return SSL_TLSEXT_ERR_NOACK;
  }
  return SSL_TLSEXT_ERR_OK;
}

int TlsServer::ServerNameCallback(SSL* ssl, int* alert, void* arg) {
  return static_cast<TlsServer*>(arg)->applyConnectionFault(ssl, alert);
}

int TlsServer::applyConnectionFault(SSL* ssl, int* alert) {
  if (!callbacks_.connectionFault) {
    return SSL_TLSEXT_ERR_OK;
  }
  switch (callbacks_.connectionFault(ServerNameOf(ssl))) {
    case ConnectionFault::None:
      break;
    case ConnectionFault::SilentAfterAccept:
      // The client's hello has been read; the server's never comes.
      waitForStall(kSilenceLimit);
      *alert = SSL_AD_HANDSHAKE_FAILURE;
      return SSL_TLSEXT_ERR_ALERT_FATAL;
    case ConnectionFault::SilentAfterHandshake:
      static_cast<Connection*>(SSL_get_app_data(ssl))->silentAfterHandshake = true;
      break;
    case ConnectionFault::AlertInHandshake:
      *alert = SSL_AD_HANDSHAKE_FAILURE;
      return SSL_TLSEXT_ERR_ALERT_FATAL;
  }
  return SSL_TLSEXT_ERR_OK;
}

bool TlsServer::start(const std::string& bindAddress, int port, std::string* error) {
  IgnoreBrokenPipes();
  {
    std::lock_guard<std::mutex> lock(ctxMutex_);
    if (ctx_ == nullptr) {
      return Fail(error, "TLS is not configured");
    }
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  if (inet_pton(AF_INET, bindAddress.c_str(), &address.sin_addr) != 1) {
    return Fail(error, "not an IPv4 address: " + bindAddress);
  }
  listenFd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int one = 1;
  setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  if (listenFd_ < 0 ||
      bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      listen(listenFd_, kListenBacklog) != 0) {
    std::string reason = std::strerror(errno);
    if (listenFd_ >= 0) {
      close(listenFd_);
      listenFd_ = -1;
    }
    return Fail(error,
                "cannot listen on " + bindAddress + ":" + std::to_string(port) + ": " + reason);
  }
  socklen_t length = sizeof(address);
  getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length);
  port_ = ntohs(address.sin_port);
  wakeFd_ = eventfd(0, EFD_CLOEXEC);
  {
    std::lock_guard<std::mutex> lock(stopMutex_);
    stopping_ = false;
  }
  acceptThread_ = std::thread(&TlsServer::acceptLoop, this);
  return true;
}

void TlsServer::stop() {
  {
    std::lock_guard<std::mutex> lock(stopMutex_);
    stopping_ = true;
  }
  stopCv_.notify_all();
  if (acceptThread_.joinable()) {
    uint64_t one = 1;
    if (write(wakeFd_, &one, sizeof(one)) < 0) {
      // The accept loop also polls with a short period, so it still ends.
    }
    acceptThread_.join();
  }
  if (listenFd_ >= 0) {
    close(listenFd_);
    listenFd_ = -1;
  }
  if (wakeFd_ >= 0) {
    close(wakeFd_);
    wakeFd_ = -1;
  }
  // Unblock every connection in its read, write or handshake, then join.
  std::list<std::unique_ptr<Connection>> connections;
  {
    std::lock_guard<std::mutex> lock(connectionMutex_);
    for (auto& connection : connections_) {
      if (connection->fd >= 0) {
        shutdown(connection->fd, SHUT_RDWR);
      }
    }
    connections.swap(connections_);
  }
  for (auto& connection : connections) {
    if (connection->thread.joinable()) {
      connection->thread.join();
    }
  }
}

void TlsServer::acceptLoop() {
  NameBackendThread();
  while (true) {
    pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
    int ready = poll(fds, 2, 200);
    {
      std::lock_guard<std::mutex> lock(stopMutex_);
      if (stopping_) {
        return;
      }
    }
    reapFinishedConnections();
    if (ready <= 0 || (fds[0].revents & POLLIN) == 0) {
      continue;
    }
    int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
      startConnection(fd);
    }
  }
}

void TlsServer::startConnection(int fd) {
  SetSocketTimeouts(fd, idleTimeout_);
  SSL* ssl;
  {
    std::lock_guard<std::mutex> lock(ctxMutex_);
    ssl = SSL_new(ctx_);  // holds its own reference to the context in use now
  }
  if (ssl == nullptr || SSL_set_fd(ssl, fd) != 1) {
    SSL_free(ssl);
    close(fd);
    return;
  }
  auto connection = std::make_unique<Connection>();
  connection->fd = fd;
  connection->ssl = ssl;
  Connection* raw = connection.get();
  SSL_set_app_data(ssl, raw);
  std::lock_guard<std::mutex> lock(connectionMutex_);
  connections_.push_back(std::move(connection));
  raw->thread = std::thread(&TlsServer::serveConnection, this, raw);
}

void TlsServer::reapFinishedConnections() {
  std::lock_guard<std::mutex> lock(connectionMutex_);
  for (auto it = connections_.begin(); it != connections_.end();) {
    if ((*it)->finished) {
      // The thread has nothing left to do but return.
      (*it)->thread.join();
      it = connections_.erase(it);
    } else {
      ++it;
    }
  }
}

void TlsServer::closeConnection(Connection* connection, bool graceful) {
  if (graceful) {
    SSL_shutdown(connection->ssl);  // close_notify; the peer's answer is not awaited
  }
  SSL_free(connection->ssl);
  connection->ssl = nullptr;
  std::lock_guard<std::mutex> lock(connectionMutex_);
  close(connection->fd);
  connection->fd = -1;
  connection->finished = true;
}

bool TlsServer::waitForStall(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(stopMutex_);
  return !stopCv_.wait_for(lock, limit, [this] { return stopping_; });
}

void TlsServer::serveConnection(Connection* connection) {
  NameBackendThread();
  SSL* ssl = connection->ssl;
  if (SSL_accept(ssl) != 1) {
    // Refused handshakes (no or foreign client certificate, protocol range)
    // end here; the client sees the alert.
    closeConnection(connection, false);
    return;
  }
  if (connection->silentAfterHandshake) {
    waitForStall(kSilenceLimit);
    closeConnection(connection, false);
    return;
  }
  const std::string commonName = CommonNameOf(SSL_get0_peer_certificate(ssl));
  const std::string serverName = ServerNameOf(ssl);
  const std::string tlsVersion = SSL_get_version(ssl);
  HttpStream stream(ssl);
  bool open = true;
  bool graceful = true;
  while (open) {
    RecordedRequest request;
    HttpStream::ReadResult result = stream.readRequest(&request);
    if (result == HttpStream::ReadResult::Closed) {
      break;
    }
    if (result != HttpStream::ReadResult::Request) {
      stream.writeError(result == HttpStream::ReadResult::TooLarge ? 413 : 400);
      break;
    }
    request.clientCommonName = commonName;
    request.serverName = serverName;
    request.tlsVersion = tlsVersion;
    Reply reply;
    callbacks_.handle(request, reply);
    bool keepAlive = HttpStream::WantsKeepAlive(request);
    switch (reply.action) {
      case Reply::Action::Answer:
        request.status = reply.status;
        open = stream.writeReply(reply, keepAlive, IsHead(request)) && keepAlive;
        break;
      case Reply::Action::Drop:
        request.status = 0;
        open = false;
        graceful = false;
        break;
      case Reply::Action::StallAfterHeaders:
        request.status = reply.status;
        if (stream.writeHeadersOnly(reply)) {
          waitForStall(reply.stallLimit);
        }
        open = false;
        graceful = false;
        break;
      case Reply::Action::Trickle:
        request.status = reply.status;
        stream.writeTrickled(reply, [&] { return waitForStall(reply.byteInterval); });
        open = false;
        break;
      case Reply::Action::ResetMidBody:
        request.status = reply.status;
        if (stream.writeHalf(reply)) {
          ResetOnClose(connection->fd);
        }
        open = false;
        graceful = false;
        break;
      case Reply::Action::CloseNotify:
        request.status = 0;
        open = false;  // the graceful close sends the alert
        break;
    }
    if (callbacks_.answered) {
      callbacks_.answered(request);
    }
  }
  closeConnection(connection, graceful);
}

}  // namespace Tools
}  // namespace Lum
