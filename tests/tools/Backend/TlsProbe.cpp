#include "TlsProbe.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ocsp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tools/pki/OpenSslHandles.h"

namespace LumTest {

namespace {

using namespace Lum::Tools;

int ConnectLoopback(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  timeval timeout{10, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

SslCtxPtr ClientContext(const TlsProbeRequest& request, std::string* error) {
  SslCtxPtr ctx(SSL_CTX_new(TLS_client_method()));
  X509Ptr cert = ReadCertPem(request.certPem);
  EvpPkeyPtr key = ReadKeyPem(request.keyPem);
  X509Ptr ca = ReadCertPem(request.caPem);
  if (!ctx || !cert || !key || !ca) {
    *error = OpenSslErrorText("probe credentials");
    return nullptr;
  }
  if (request.minVersion != 0 && request.minVersion < TLS1_2_VERSION) {
    SSL_CTX_set_security_level(ctx.get(), 0);
  }
  if (request.minVersion != 0) {
    SSL_CTX_set_min_proto_version(ctx.get(), request.minVersion);
  }
  if (request.maxVersion != 0) {
    SSL_CTX_set_max_proto_version(ctx.get(), request.maxVersion);
  }
  SSL_CTX_use_certificate(ctx.get(), cert.get());
  SSL_CTX_use_PrivateKey(ctx.get(), key.get());
  X509_STORE_add_cert(SSL_CTX_get_cert_store(ctx.get()), ca.get());
  SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER, nullptr);
  return ctx;
}

void InspectStapledAnswer(SSL* ssl, X509_STORE* store, TlsProbeResult* result) {
  const unsigned char* der = nullptr;
  long length = SSL_get_tlsext_status_ocsp_resp(ssl, &der);
  if (der == nullptr || length <= 0) {
    return;
  }
  result->stapled = true;
  OcspResponsePtr response(d2i_OCSP_RESPONSE(nullptr, &der, length));
  if (!response) {
    return;
  }
  result->responseStatus = OCSP_response_status(response.get());
  OcspBasicRespPtr basic(OCSP_response_get1_basic(response.get()));
  STACK_OF(X509)* chain = SSL_get_peer_cert_chain(ssl);
  X509* peer = SSL_get0_peer_certificate(ssl);
  if (!basic || chain == nullptr || peer == nullptr || sk_X509_num(chain) < 2) {
    return;
  }
  result->signatureValid = OCSP_basic_verify(basic.get(), chain, store, 0) == 1;
  OcspCertIdPtr id(OCSP_cert_to_id(nullptr, peer, sk_X509_value(chain, 1)));
  int reason = 0;
  ASN1_GENERALIZEDTIME* revoked = nullptr;
  ASN1_GENERALIZEDTIME* thisUpdate = nullptr;
  ASN1_GENERALIZEDTIME* nextUpdate = nullptr;
  if (id && OCSP_resp_find_status(basic.get(), id.get(), &result->certStatus, &reason, &revoked,
                                  &thisUpdate, &nextUpdate) == 1) {
    result->timesValid = OCSP_check_validity(thisUpdate, nextUpdate, 300, -1) == 1;
  }
  ERR_clear_error();
}

std::string AskMethod(SSL* ssl) {
  const std::string request =
      "GET /test/method HTTP/1.1\r\nHost: probe-da.lum.localhost\r\nConnection: close\r\n\r\n";
  if (SSL_write(ssl, request.data(), static_cast<int>(request.size())) <= 0) {
    return std::string();
  }
  std::string answer;
  char buffer[4096];
  int received;
  while ((received = SSL_read(ssl, buffer, sizeof(buffer))) > 0) {
    answer.append(buffer, static_cast<size_t>(received));
  }
  return answer;
}

}  // namespace

TlsProbeResult ProbeTls(const TlsProbeRequest& request) {
  TlsProbeResult result;
  SslCtxPtr ctx = ClientContext(request, &result.error);
  if (!ctx) {
    return result;
  }
  int fd = ConnectLoopback(request.port);
  if (fd < 0) {
    result.error = "connect failed";
    return result;
  }
  SslPtr ssl(SSL_new(ctx.get()));
  SSL_set_fd(ssl.get(), fd);
  SSL_set_tlsext_host_name(ssl.get(), "probe-da.lum.localhost");
  SSL_set_tlsext_status_type(ssl.get(), TLSEXT_STATUSTYPE_ocsp);
  if (SSL_connect(ssl.get()) == 1) {
    result.connected = true;
    result.version = SSL_get_version(ssl.get());
    InspectStapledAnswer(ssl.get(), SSL_CTX_get_cert_store(ctx.get()), &result);
    result.answer = AskMethod(ssl.get());
    SSL_shutdown(ssl.get());
  } else {
    result.error = OpenSslErrorText("handshake");
  }
  ssl.reset();
  close(fd);
  return result;
}

}  // namespace LumTest
