#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "HttpTestSupport.h"
#include "Platform/Http.h"
#include "support/LogCapture.h"
#include "support/TestSupport.h"

namespace {

using Lum::Core::Http;
using Lum::Tools::Backend;
using Lum::Tools::BackendOptions;
using Lum::Tools::Fault;
using Lum::Tools::OcspMode;
using Lum::Tools::RecordedRequest;
using Lum::Tools::Reply;
using Lum::Tools::ServerCertKind;
using Lum::Tools::TlsVersion;
using LumHttpTest::Device;
using LumHttpTest::DeviceRequest;
using LumHttpTest::Pki;
using LumHttpTest::StartBackend;

const char kEchoPath[] = "/api/v1/test/echo";

// Answers 201 with the received body behind a marker, plus a header, so a
// test can tell a real answer from a canned or default one.
void EchoRoute(const RecordedRequest& request, Reply& reply) {
  reply.json(201, "{\"echo\":\"" + request.body + "\"}");
  reply.headers.push_back({"X-Echo-Method", request.method});
}

class HttpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    backend_ = StartBackend();
    ASSERT_NE(nullptr, backend_);
    backend_->addRoute(kEchoPath, EchoRoute);
  }

  std::string url(const std::string& path) const { return backend_->baseUrl("OPID") + path; }

  std::unique_ptr<Backend> backend_;
};

TEST_F(HttpTest, PostWithDeviceCertificateReachesTheBackEnd) {
  Http::Request request = DeviceRequest(Http::POST, url(kEchoPath));
  request.headers = {"Content-Type: application/json", "X-Lum-Test: one two"};
  request.body = "payload";
  Http::Response response;
  Http::Perform(request, response);

  EXPECT_EQ(201, response.statusCode);
  EXPECT_EQ("{\"echo\":\"payload\"}", response.body);
  ASSERT_FALSE(response.headers.empty());
  EXPECT_EQ(0u, response.headers.front().rfind("HTTP/1.1 201", 0)) << response.headers.front();
  EXPECT_EQ("\r\n", response.headers.back());  // raw lines, terminator included
  bool sawEchoHeader = false;
  for (const std::string& line : response.headers) {
    sawEchoHeader |= line == "X-Echo-Method: POST\r\n";
  }
  EXPECT_TRUE(sawEchoHeader);
  EXPECT_EQ(nullptr, request.handle);  // not kept without keepAlive
  EXPECT_TRUE(request.headers.empty());
  EXPECT_TRUE(request.body.empty());

  const std::vector<RecordedRequest> seen = backend_->requestsTo(kEchoPath);
  ASSERT_EQ(1u, seen.size());
  EXPECT_EQ(Device().commonName, seen[0].clientCommonName);
  EXPECT_EQ("POST", seen[0].method);
  EXPECT_EQ("payload", seen[0].body);
  EXPECT_EQ("application/json", seen[0].header("Content-Type"));
  EXPECT_EQ("one two", seen[0].header("X-Lum-Test"));
}

TEST_F(HttpTest, EncryptedKeyWithTheRightPassPhraseWorks) {
  Http::Request request = DeviceRequest(Http::GET, url(kEchoPath));
  request.clientKey = Device().encryptedKeyPem.c_str();
  request.clientKeyPassword = Device().passPhrase.c_str();
  Http::Response response;
  Http::Perform(request, response);
  EXPECT_EQ(201, response.statusCode);
  ASSERT_EQ(1u, backend_->requestCount(kEchoPath));
  EXPECT_EQ(Device().commonName, backend_->requestsTo(kEchoPath)[0].clientCommonName);
}

TEST_F(HttpTest, VerbsGoOutWithTheirMethodText) {
  struct Case {
    int verb;
    const char* method;
  };
  // DELETE in lower case is what the back end expects; an unknown verb falls
  // back to libcurl's default.
  const Case cases[] = {
      {Http::POST, "POST"}, {Http::GET, "GET"}, {Http::DELETE, "delete"}, {7, "GET"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.method);
    Http::Request request = DeviceRequest(static_cast<Http::Verb>(c.verb), url("/test/method"));
    Http::Response response;
    Http::Perform(request, response);
    EXPECT_EQ(200, response.statusCode);
    EXPECT_NE(std::string::npos, response.body.find(c.method)) << response.body;
    const std::vector<RecordedRequest> seen = backend_->requests();
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(c.method, seen.back().method);
  }
}

TEST_F(HttpTest, MultipartUploadCarriesDataAndTokenParts) {
  const std::string bytes("\x00\x01zip\xff\r\n--x", 10);
  struct Case {
    const char* name;
    std::string token;
  };
  const Case cases[] = {{"with token", "tok-123"}, {"without token", ""}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    backend_->clearRequests();
    Http::Request request = DeviceRequest(Http::POST, url(kEchoPath));
    request.data = reinterpret_cast<const uint8_t*>(bytes.data());
    request.dataLength = static_cast<uint32_t>(bytes.size());
    request.token = c.token;
    request.body = "ignored when data is set";
    Http::Response response;
    Http::Perform(request, response);
    EXPECT_EQ(201, response.statusCode);
    EXPECT_TRUE(response.uploadComplete);

    const std::vector<RecordedRequest> seen = backend_->requestsTo(kEchoPath);
    ASSERT_EQ(1u, seen.size());
    const Lum::Tools::MultipartPart* data = seen[0].part("data");
    ASSERT_NE(nullptr, data);
    EXPECT_EQ(bytes, data->content);
    EXPECT_EQ("data", data->filename);
    const Lum::Tools::MultipartPart* token = seen[0].part("token");
    if (c.token.empty()) {
      EXPECT_EQ(nullptr, token);
      EXPECT_EQ(1u, seen[0].parts.size());
    } else {
      ASSERT_NE(nullptr, token);
      EXPECT_EQ(c.token, token->content);
      EXPECT_EQ("token", token->filename);
    }
  }
}

TEST_F(HttpTest, SecondPerformWithoutRefillSendsNoHeadersAndEmptyBody) {
  Http::Request request = DeviceRequest(Http::POST, url(kEchoPath));
  request.headers = {"X-Once: yes"};
  request.body = "first";
  Http::Response response;
  Http::Perform(request, response);
  ASSERT_EQ(201, response.statusCode);
  Http::Perform(request, response);
  ASSERT_EQ(201, response.statusCode);
  EXPECT_EQ("{\"echo\":\"\"}", response.body);

  const std::vector<RecordedRequest> seen = backend_->requestsTo(kEchoPath);
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ("yes", seen[0].header("X-Once"));
  EXPECT_EQ("first", seen[0].body);
  EXPECT_FALSE(seen[1].hasHeader("X-Once"));
  EXPECT_EQ("", seen[1].body);
}

TEST_F(HttpTest, KeepAliveHandleSurvivesSuccessOnlyAndCarriesNoStaleSettings) {
  Http::Request request = DeviceRequest(Http::POST, url(kEchoPath));
  request.keepAlive = true;
  request.body = "one";
  Http::Response response;
  Http::Perform(request, response);
  ASSERT_EQ(201, response.statusCode);
  ASSERT_NE(nullptr, request.handle);
  CURL* const kept = request.handle;

  // A later call on the same handle must not inherit the earlier body or
  // method: a DELETE after a POST sends no body, a GET after a DELETE is a GET.
  request.verb = Http::DELETE;
  Http::Perform(request, response);
  EXPECT_EQ(201, response.statusCode);
  request.verb = Http::GET;
  Http::Perform(request, response);
  EXPECT_EQ(201, response.statusCode);
  EXPECT_EQ(kept, request.handle);
  const std::vector<RecordedRequest> seen = backend_->requestsTo(kEchoPath);
  ASSERT_EQ(3u, seen.size());
  EXPECT_EQ("one", seen[0].body);
  EXPECT_EQ("delete", seen[1].method);
  EXPECT_EQ("", seen[1].body);
  EXPECT_EQ("GET", seen[2].method);

  // libcurl retries once on a fresh connection when a reused one dies, so
  // the drop must outlast that retry.
  Fault drop;
  drop.drop = true;
  drop.count = -1;
  backend_->injectFault(kEchoPath, drop);
  Http::Perform(request, response);
  EXPECT_EQ(400, response.statusCode);
  EXPECT_EQ(nullptr, request.handle);
  backend_->clearFaults();

  // The next call builds a fresh handle, which Cleanup releases.
  Http::Perform(request, response);
  EXPECT_EQ(201, response.statusCode);
  ASSERT_NE(nullptr, request.handle);
  Http::Cleanup(request);
  EXPECT_EQ(nullptr, request.handle);
  Http::Cleanup(request);  // harmless without a handle
}

TEST_F(HttpTest, OversizedBodyFillsCallerBufferAndKeepsRealStatus) {
  const size_t kBodySize = 10 * 1024 * 1024;
  // Shared with the route, which the back end's threads may still hold after
  // this test body returns.
  auto shared = std::make_shared<std::string>(kBodySize, '\0');
  std::string& big = *shared;
  for (size_t i = 0; i < big.size(); ++i) {
    big[i] = static_cast<char>(i % 251);
  }
  backend_->addRoute("/api/v1/big", [shared](const RecordedRequest&, Reply& reply) {
    reply.status = 206;
    reply.contentType = "application/octet-stream";
    reply.body = *shared;
  });
  std::vector<uint8_t> buffer(4096 + 1, 0xAA);  // one guard byte past the limit
  Http::Request request = DeviceRequest(Http::GET, url("/api/v1/big"));
  Http::Response response;
  response.bodyBuffer = buffer.data();
  response.bodyMaxLength = 4096;
  Http::Perform(request, response);

  EXPECT_EQ(206, response.statusCode);
  EXPECT_TRUE(response.bodyOverflow);
  EXPECT_EQ(4096u, response.bodyLength);
  EXPECT_TRUE(response.body.empty());
  EXPECT_EQ(big.substr(0, 4096), std::string(buffer.begin(), buffer.begin() + 4096));
  EXPECT_EQ(0xAA, buffer[4096]);
  EXPECT_GT(response.downloadSpeed, 0.0);

  // A body that fits exactly is no overflow; a zero limit stores nothing.
  struct Case {
    uint32_t maxLength;
    uint32_t expectedLength;
    bool overflow;
  };
  backend_->addRoute("/api/v1/small",
                     [](const RecordedRequest&, Reply& reply) { reply.body = "0123456789"; });
  const Case cases[] = {{10, 10, false}, {0, 0, false}, {4, 4, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.maxLength);
    std::vector<uint8_t> small(16, 0);
    Http::Request again = DeviceRequest(Http::GET, url("/api/v1/small"));
    Http::Response answer;
    answer.bodyBuffer = small.data();
    answer.bodyMaxLength = c.maxLength;
    Http::Perform(again, answer);
    EXPECT_EQ(200, answer.statusCode);
    EXPECT_EQ(c.expectedLength, answer.bodyLength);
    EXPECT_EQ(c.overflow, answer.bodyOverflow);
    EXPECT_EQ(std::string("0123456789").substr(0, c.expectedLength),
              std::string(small.begin(), small.begin() + c.expectedLength));
  }
}

TEST_F(HttpTest, StalledAnswerEndsAtTheMessageTimeout) {
  const auto kStall = std::chrono::seconds(60);
  backend_->addRoute("/api/v1/stall", [kStall](const RecordedRequest&, Reply& reply) {
    reply.action = Reply::Action::StallAfterHeaders;
    reply.stallLimit = kStall;
  });
  Http::Request request = DeviceRequest(Http::GET, url("/api/v1/stall"));
  request.messageTimeout = 1000;
  request.keepAlive = true;
  Http::Response response;
  const auto start = std::chrono::steady_clock::now();
  Http::Perform(request, response);
  const auto elapsed = std::chrono::steady_clock::now() - start;

  EXPECT_EQ(400, response.statusCode);
  EXPECT_FALSE(response.headers.empty());  // the headers did arrive before the stall
  EXPECT_EQ(nullptr, request.handle);
  EXPECT_LT(elapsed, kStall / 2);
}

TEST(HttpNoServerTest, ConnectionRefusedReadsAs400AndDropsTheHandle) {
  // Bind an ephemeral port and close it again: nothing listens there.
  int port = 0;
  {
    auto backend = StartBackend();
    ASSERT_NE(nullptr, backend);
    port = backend->port();
  }
  Http::Request request = DeviceRequest(
      Http::GET, "https://OPID-da.lum.localhost:" + std::to_string(port) + "/api/v1/da/state");
  request.keepAlive = true;
  request.connectTimeout = 1000;
  Http::Response response;
  response.statusCode = 200;
  Http::Perform(request, response);
  EXPECT_EQ(400, response.statusCode);
  EXPECT_TRUE(response.headers.empty());
  EXPECT_EQ(nullptr, request.handle);
}

BackendOptions Server(OcspMode ocsp, ServerCertKind cert = ServerCertKind::Default,
                      bool tls11Only = false) {
  BackendOptions options;
  options.ocsp = ocsp;
  options.serverCert = cert;
  if (tls11Only) {
    options.minTls = TlsVersion::Tls1_1;
    options.maxTls = TlsVersion::Tls1_1;
  }
  return options;
}

void KeepClient(Http::Request&) {}

// Every way the TLS policy can refuse a connection: each ends as status 400
// without a request reaching the back end.
TEST(HttpTlsTest, PolicyViolationsFailWith400) {
  struct Case {
    const char* name;
    BackendOptions server;
    void (*client)(Http::Request&);
  };
  const Case cases[] = {
      {"no stapled OCSP answer", Server(OcspMode::None), KeepClient},
      {"revoked OCSP answer", Server(OcspMode::Revoked), KeepClient},
      {"expired OCSP answer", Server(OcspMode::Expired), KeepClient},
      {"server from an untrusted CA", Server(OcspMode::Good, ServerCertKind::UntrustedCa),
       KeepClient},
      {"server certificate for another host", Server(OcspMode::Good, ServerCertKind::WrongHost),
       KeepClient},
      {"server offering TLS 1.1 only", Server(OcspMode::Good, ServerCertKind::Default, true),
       KeepClient},
      {"key not matching the certificate", Server(OcspMode::Good),
       [](Http::Request& r) { r.clientKey = Device().otherKeyPem.c_str(); }},
      {"wrong pass phrase", Server(OcspMode::Good),
       [](Http::Request& r) {
         r.clientKey = Device().encryptedKeyPem.c_str();
         r.clientKeyPassword = "not-the-pass-phrase";
       }},
      {"encrypted key without pass phrase", Server(OcspMode::Good),
       [](Http::Request& r) { r.clientKey = Device().encryptedKeyPem.c_str(); }},
      {"client certificate from an untrusted CA", Server(OcspMode::Good),
       [](Http::Request& r) {
         r.clientCertificate = Device().rogueCertPem.c_str();
         r.clientKey = Device().rogueKeyPem.c_str();
       }},
      {"trusting only another CA", Server(OcspMode::Good),
       [](Http::Request& r) { r.caCertificates = Pki().untrustedCaCertPem().c_str(); }},
      {"unreadable trusted certificates", Server(OcspMode::Good),
       [](Http::Request& r) {
         r.caCertificates = "-----BEGIN CERTIFICATE-----\nnot base64\n-----END CERTIFICATE-----\n";
       }},
      {"no client certificate", Server(OcspMode::Good),
       [](Http::Request& r) { r.clientCertificate = nullptr; }},
      {"no client key", Server(OcspMode::Good), [](Http::Request& r) { r.clientKey = nullptr; }},
      {"no trusted certificates", Server(OcspMode::Good),
       [](Http::Request& r) { r.caCertificates = nullptr; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto backend = StartBackend(c.server);
    ASSERT_NE(nullptr, backend);
    Http::Request request = DeviceRequest(Http::GET, backend->baseUrl("OPID") + "/test/method");
    request.keepAlive = true;
    c.client(request);
    Http::Response response;
    Http::Perform(request, response);
    EXPECT_EQ(400, response.statusCode);
    EXPECT_TRUE(response.headers.empty());
    EXPECT_EQ(nullptr, request.handle);
    EXPECT_EQ(0u, backend->requestCount());
  }
}

// The default trust locations of the process are pointed at the rogue CA:
// only the CAs the request names may count.
TEST(HttpTlsTest, OnlyTheGivenCasAreTrustedWhateverTheSystemStoreSays) {
  LumTest::TempDir dir;
  LumTest::WriteFile(dir.file("rogue-ca.pem"), Pki().untrustedCaCertPem());
  const char* savedFile = std::getenv("SSL_CERT_FILE");
  const char* savedDir = std::getenv("SSL_CERT_DIR");
  const std::string oldFile = savedFile != nullptr ? savedFile : "";
  const std::string oldDir = savedDir != nullptr ? savedDir : "";

  BackendOptions options;
  options.serverCert = ServerCertKind::UntrustedCa;
  auto backend = StartBackend(options);
  ASSERT_NE(nullptr, backend);
  setenv("SSL_CERT_FILE", dir.file("rogue-ca.pem").c_str(), 1);
  setenv("SSL_CERT_DIR", dir.path().c_str(), 1);

  Http::Request request = DeviceRequest(Http::GET, backend->baseUrl("OPID") + "/test/method");
  Http::Response response;
  Http::Perform(request, response);
  EXPECT_EQ(400, response.statusCode);
  EXPECT_EQ(0u, backend->requestCount());

  // The same server is accepted once its CA is the one given: the refusal
  // above was about trust, not about a broken server.
  const std::string rogueCa = Pki().untrustedCaCertPem();
  request = DeviceRequest(Http::GET, backend->baseUrl("OPID") + "/test/method");
  request.caCertificates = rogueCa.c_str();
  Http::Perform(request, response);
  EXPECT_EQ(200, response.statusCode);
  EXPECT_EQ(1u, backend->requestCount());

  backend->stop();
  savedFile != nullptr ? setenv("SSL_CERT_FILE", oldFile.c_str(), 1) : unsetenv("SSL_CERT_FILE");
  savedDir != nullptr ? setenv("SSL_CERT_DIR", oldDir.c_str(), 1) : unsetenv("SSL_CERT_DIR");
}

TEST_F(HttpTest, ClientChainCertificatesAreSentAlong) {
  // The device certificate followed by its CA as an intermediate: the extra
  // certificate must not disturb the handshake.
  const std::string chain = Device().certPem + Pki().caCertPem();
  Http::Request request = DeviceRequest(Http::GET, url(kEchoPath));
  request.clientCertificate = chain.c_str();
  Http::Response response;
  Http::Perform(request, response);
  EXPECT_EQ(201, response.statusCode);
  EXPECT_EQ(Device().commonName, backend_->requestsTo(kEchoPath).at(0).clientCommonName);
}

TEST_F(HttpTest, ConcurrentPerformsFromSeveralThreads) {
  const int kThreads = 4;
  const int kCallsPerThread = 5;
  std::atomic<int> succeeded{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t, &succeeded] {
      // Each thread owns one request; half of them reuse its handle.
      Http::Request request = DeviceRequest(Http::POST, url(kEchoPath));
      request.keepAlive = (t % 2) == 0;
      for (int i = 0; i < kCallsPerThread; ++i) {
        const std::string tag = std::to_string(t) + "-" + std::to_string(i);
        request.body = tag;
        Http::Response response;
        Http::Perform(request, response);
        if (response.statusCode == 201 && response.body == "{\"echo\":\"" + tag + "\"}") {
          ++succeeded;
        }
      }
      Http::Cleanup(request);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(kThreads * kCallsPerThread, succeeded.load());
  EXPECT_EQ(static_cast<size_t>(kThreads * kCallsPerThread), backend_->requestCount(kEchoPath));
}

TEST_F(HttpTest, DiagnosticDumpsUseTheirFixedTexts) {
  LumTest::LogCapture capture("trace");
  Http::Initialize(true, false);
  Http::Initialize(true, true);
  Http::Request request = DeviceRequest(Http::POST, url(kEchoPath));
  request.headers = {"X-A: 1"};
  request.body = "{\"k\":1}";
  Http::Response response;
  Http::Perform(request, response);
  ASSERT_EQ(201, response.statusCode);
  Http::Terminate();
  Http::Terminate();

  const std::string expected[] = {
      "Not performing curl_global_init()",
      "Performing curl_global_init()",
      "Not performing curl_global_cleanup()",
      "curl_easy_init()",
      "curl_easy_cleanup()",
      "HTTP Request Verb                    : POST",
      "HTTP Request Header                  : X-A: 1",
      "HTTP Request Body                    : {\"k\":1}",
      "HTTP Connect Timeout                 : 5000",
      "HTTP Message Timeout                 : 20000",
      "HTTP Response Code                   : 201",
      "HTTP Response Header                 : X-Echo-Method: POST\r",
      "HTTP Response Body                   : {\"echo\":\"{\"k\":1}\"}",
      "{\"httpRequest\":{\"body\":{\"k\":1},\"connectTimeout\":5000,\"headers\":[\"X-A: "
      "1\"],\"messageTimeout\":20000,\"mock\":false,\"url\":\"" +
          url(kEchoPath) + "\",\"verb\":\"POST\"}}",
  };
  for (const std::string& line : expected) {
    EXPECT_TRUE(capture.logged(line)) << line;
  }
  const std::string text = capture.text();
  EXPECT_NE(std::string::npos, text.find("Curl version is ")) << text;
  EXPECT_NE(std::string::npos, text.find("CURLINFO_HEADER_OUT   POST /api/v1/test/echo"));
  EXPECT_NE(std::string::npos, text.find("CURLINFO_SSL_DATA_OUT "));
  // The echoed body is not JSON, so the response shows it as text.
  EXPECT_NE(std::string::npos, text.find("\"bodyString\":\"{\\\"echo\\\""));
}

}  // namespace
