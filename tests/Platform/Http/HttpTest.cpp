#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "HttpTestSupport.h"
#include "Platform/Http.h"
#include "support/LogCapture.h"
#include "support/TestSupport.h"

namespace {

using namespace Lum::Tools;
using namespace LumHttpTest;
using Lum::Core::Http;

const char kEchoPath[] = "/api/v1/test/echo";

// Answers 201 with the received body behind a marker, so a test can tell a
// real answer from a canned or default one.
void EchoRoute(const RecordedRequest& request, Reply& reply) {
  reply.json(201, "{\"echo\":\"" + request.body + "\"}");
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

// A request's headers and body are consumed: performing it again without
// refilling sends neither. The key is the pass-phrase protected one.
TEST_F(HttpTest, PostWithDeviceCertificateReachesTheBackEndOnce) {
  Http::Request request = DeviceRequest(Http::POST, url(kEchoPath));
  request.clientKey = Device().encryptedKeyPem.c_str();
  request.clientKeyPassword = Device().passPhrase.c_str();
  request.headers = {"Content-Type: application/json", "X-Lum-Test: one two"};
  request.body = "payload";
  Http::Response response;
  Http::Perform(request, response);
  EXPECT_EQ(201, response.statusCode);
  EXPECT_TRUE(response.answered);
  EXPECT_EQ("{\"echo\":\"payload\"}", response.body);
  ASSERT_FALSE(response.headers.empty());
  EXPECT_EQ(0u, response.headers.front().rfind("HTTP/1.1 201", 0)) << response.headers.front();
  EXPECT_EQ("\r\n", response.headers.back());  // raw lines, terminator included
  EXPECT_EQ(nullptr, request.handle);          // not kept without keepAlive

  Http::Perform(request, response);
  EXPECT_EQ(201, response.statusCode);
  EXPECT_EQ("{\"echo\":\"\"}", response.body);
  const std::vector<RecordedRequest> seen = backend_->requestsTo(kEchoPath);
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ(Device().commonName, seen[0].clientCommonName);
  EXPECT_EQ("payload", seen[0].body);
  EXPECT_EQ("one two", seen[0].header("X-Lum-Test"));
  EXPECT_FALSE(seen[1].hasHeader("X-Lum-Test"));
  EXPECT_EQ("", seen[1].body);
}

// The debug log shows a JSON body as JSON; one nested deeper than the parser
// goes (it throws rather than fails) is shown as text, in either direction.
TEST_F(HttpTest, ADeeplyNestedBodyIsLoggedAsText) {
  const std::string deep = std::string(5000, '[') + std::string(5000, ']');
  backend_->addRoute("/api/v1/deep",
                     [deep](const RecordedRequest&, Reply& reply) { reply.json(200, deep); });
  LumTest::LogCapture capture("debug");
  Http::Request request = DeviceRequest(Http::POST, url("/api/v1/deep"));
  request.body = deep;
  Http::Response response;
  Http::Perform(request, response);
  EXPECT_EQ(200, response.statusCode);
  EXPECT_EQ(deep, response.body);
  const std::string shown = "\"bodyString\":\"" + deep + "\"";
  for (const char* direction : {"{\"httpRequest\":", "{\"httpResponse\":"}) {
    bool logged = false;
    for (const std::string& message : capture.messages()) {
      logged |= message.rfind(direction, 0) == 0 && message.find(shown) != std::string::npos;
    }
    EXPECT_TRUE(logged) << direction;
  }
}

TEST_F(HttpTest, VerbsGoOutWithTheirMethodText) {
  // DELETE in lower case is what the back end expects; an unknown verb falls
  // back to GET.
  const std::pair<int, const char*> cases[] = {
      {Http::POST, "POST"}, {Http::GET, "GET"}, {Http::DELETE, "delete"}, {7, "GET"}};
  for (const auto& [verb, method] : cases) {
    SCOPED_TRACE(method);
    Http::Request request = DeviceRequest(static_cast<Http::Verb>(verb), url("/test/method"));
    Http::Response response;
    Http::Perform(request, response);
    EXPECT_EQ(200, response.statusCode);
    EXPECT_EQ(method, backend_->requests().back().method);
  }
}

TEST_F(HttpTest, MultipartUploadCarriesDataAndTokenParts) {
  const std::string bytes("\x00\x01zip\xff\r\n--x", 10);
  for (const std::string token : {"tok-123", ""}) {
    SCOPED_TRACE(token);
    backend_->clearRequests();
    Http::Request request = DeviceRequest(Http::POST, url(kEchoPath));
    request.data = reinterpret_cast<const uint8_t*>(bytes.data());
    request.dataLength = static_cast<uint32_t>(bytes.size());
    request.token = token;
    request.body = "ignored when data is set";
    Http::Response response;
    Http::Perform(request, response);
    EXPECT_EQ(201, response.statusCode);
    EXPECT_TRUE(response.uploadComplete);

    const std::vector<RecordedRequest> seen = backend_->requestsTo(kEchoPath);
    ASSERT_EQ(1u, seen.size());
    ASSERT_EQ(token.empty() ? 1u : 2u, seen[0].parts.size());
    const std::pair<std::string, std::string> parts[] = {{"data", bytes}, {"token", token}};
    for (const auto& [name, content] : parts) {
      if (content.empty()) continue;
      ASSERT_NE(nullptr, seen[0].part(name)) << name;
      EXPECT_EQ(content, seen[0].part(name)->content);
      EXPECT_EQ(name, seen[0].part(name)->filename);
    }
  }
}

// Zero bytes are zero bytes, however the buffer continues: a buffer without a
// NUL after it must not be read past its end.
TEST_F(HttpTest, EmptyUploadSendsAnEmptyDataPart) {
  const std::unique_ptr<uint8_t[]> bytes(new uint8_t[4]{'a', 'b', 'c', 'd'});
  Http::Request request = DeviceRequest(Http::POST, url(kEchoPath));
  request.data = bytes.get();
  request.dataLength = 0;
  Http::Response response;
  Http::Perform(request, response);
  EXPECT_EQ(201, response.statusCode);
  const std::vector<RecordedRequest> seen = backend_->requestsTo(kEchoPath);
  ASSERT_EQ(1u, seen.size());
  ASSERT_NE(nullptr, seen[0].part("data"));
  EXPECT_EQ("", seen[0].part("data")->content);
}

TEST_F(HttpTest, KeepAliveHandleSurvivesSuccessOnly) {
  Http::Request request = DeviceRequest(Http::POST, url(kEchoPath));
  request.keepAlive = true;
  request.body = "one";
  Http::Response response;
  Http::Perform(request, response);
  ASSERT_EQ(201, response.statusCode);
  ASSERT_NE(nullptr, request.handle);
  CURL* const kept = request.handle;

  // The reused handle must not inherit the earlier body: a DELETE after a
  // POST sends none.
  request.verb = Http::DELETE;
  Http::Perform(request, response);
  EXPECT_EQ(201, response.statusCode);
  EXPECT_EQ(kept, request.handle);
  const std::vector<RecordedRequest> seen = backend_->requestsTo(kEchoPath);
  ASSERT_EQ(2u, seen.size());
  EXPECT_EQ("delete", seen[1].method);
  EXPECT_EQ("", seen[1].body);

  // The server's own 400 is an answer and keeps the handle; a failed
  // transfer is not. libcurl retries once on a fresh connection when a
  // reused one dies, so the drop must outlast that retry.
  Fault refusal;
  refusal.status = 400;
  backend_->injectFault(kEchoPath, refusal);
  Http::Perform(request, response);
  EXPECT_EQ(400, response.statusCode);
  EXPECT_TRUE(response.answered);
  EXPECT_EQ(kept, request.handle);
  Fault drop;
  drop.drop = true;
  drop.count = -1;
  backend_->injectFault(kEchoPath, drop);
  Http::Perform(request, response);
  EXPECT_EQ(400, response.statusCode);
  EXPECT_FALSE(response.answered);
  EXPECT_EQ(nullptr, request.handle);
}

TEST_F(HttpTest, OversizedBodyFillsCallerBufferAndKeepsRealStatus) {
  // The back end answers N bytes "abcd..."; ten fit exactly, 10 MB overflow.
  for (const auto& [size, overflow] : {std::pair(10 * 1024 * 1024, true), std::pair(10, false)}) {
    SCOPED_TRACE(size);
    std::vector<uint8_t> buffer(11, 0xAA);  // one guard byte past the limit
    Http::Request request = DeviceRequest(Http::GET, url("/test/bytes/" + std::to_string(size)));
    Http::Response response;
    response.bodyBuffer = buffer.data();
    response.bodyMaxLength = 10;
    Http::Perform(request, response);
    EXPECT_EQ(200, response.statusCode);
    EXPECT_EQ(overflow, response.bodyOverflow);
    EXPECT_EQ(10u, response.bodyLength);
    EXPECT_TRUE(response.body.empty());
    EXPECT_EQ("abcdefghij", std::string(buffer.begin(), buffer.begin() + 10));
    EXPECT_EQ(0xAA, buffer[10]);
  }
}

// An answer read as text is held in memory: one beyond a few megabytes of
// body, or a quarter of one of headers, is cut off as a failed transfer.
TEST_F(HttpTest, FloodedTextAnswersAreCutOff) {
  Fault headers;
  headers.count = -1;
  headers.headerBytes = 1 << 20;
  backend_->injectFault("/test/method", headers);
  for (const char* path : {"/test/bytes/8388608", "/test/method"}) {
    SCOPED_TRACE(path);
    Http::Request request = DeviceRequest(Http::GET, url(path));
    Http::Response response;
    Http::Perform(request, response);
    EXPECT_EQ(400, response.statusCode);
    EXPECT_FALSE(response.answered);
    EXPECT_LE(response.body.size(), 4u << 20);
  }
}

const auto kStall = std::chrono::seconds(60);
const char kStallPath[] = "/api/v1/stall";

// Sends the headers, then nothing until kStall has passed.
void StallRoute(const RecordedRequest&, Reply& reply) {
  reply.action = Reply::Action::StallAfterHeaders;
  reply.stallLimit = kStall;
}

// Whatever the time-outs say, a server that stops sending is cut off: no
// message time-out means the shortest one, and a stall ends the transfer
// once it outlasts the connect time-out.
TEST_F(HttpTest, StalledAnswerAlwaysEnds) {
  backend_->addRoute(kStallPath, StallRoute);
  const struct {
    const char* name;
    uint32_t connectTimeout;
    uint32_t messageTimeout;
  } cases[] = {
      {"at the message time-out", 5000, 1000},
      {"at the shortest message time-out when none is given", 60000, 0},
      {"at the connect time-out when the message time-out never ends", 1000, UINT32_MAX},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Http::Request request = DeviceRequest(Http::GET, url(kStallPath));
    request.connectTimeout = c.connectTimeout;
    request.messageTimeout = c.messageTimeout;
    request.keepAlive = true;
    Http::Response response;
    const auto start = std::chrono::steady_clock::now();
    Http::Perform(request, response);
    const auto elapsed = std::chrono::steady_clock::now() - start;

    EXPECT_EQ(400, response.statusCode);
    EXPECT_FALSE(response.answered);
    EXPECT_FALSE(response.headers.empty());  // the headers did arrive before the stall
    EXPECT_EQ(nullptr, request.handle);
    EXPECT_LT(elapsed, kStall / 2);
  }
}

TEST(HttpTimeoutTest, TimeoutsAreClampedToTheirRange) {
  const struct {
    uint32_t given;
    uint32_t connect;
    uint32_t message;
  } cases[] = {
      {0, 1000, 1000},
      {999, 1000, 1000},
      {1000, 1000, 1000},
      {120001, 120000, 120001},
      {2147483648u, 120000, 3600000},  // negative as a 32-bit long
      {UINT32_MAX, 120000, 3600000},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.connect, Http::ClampConnectTimeoutMs(c.given)) << c.given;
    EXPECT_EQ(c.message, Http::ClampMessageTimeoutMs(c.given)) << c.given;
  }
}

// The agent cancels when it terminates: a transfer in progress ends long
// before its time-outs.
TEST_F(HttpTest, CancelEndsATransferInProgress) {
  backend_->addRoute(kStallPath, StallRoute);
  Http::Request request = DeviceRequest(Http::GET, url(kStallPath));
  request.connectTimeout = 60000;
  request.messageTimeout = 60000;
  Http::Response response;
  // Once the server holds the request the transfer is under way.
  const auto elapsed = PerformCancelled(request, response, [this] {
    return backend_->waitForRequests(kStallPath, 1, std::chrono::seconds(10));
  });
  EXPECT_EQ(400, response.statusCode);
  EXPECT_LT(elapsed, std::chrono::seconds(10));
}

// Only HTTPS goes out: libcurl would otherwise read a local file for a
// "file://" URL and hand its content back as the answer.
TEST(HttpProtocolTest, AFileUrlReadsNothing) {
  LumTest::TempDir dir;
  LumTest::WriteFile(dir.file("secret.txt"), "local secret");
  Http::Request request = DeviceRequest(Http::GET, "file://" + dir.file("secret.txt"));
  Http::Response response;
  Http::Perform(request, response);
  EXPECT_EQ(400, response.statusCode);
  EXPECT_EQ("", response.body);
}

// Every way the TLS policy can refuse a connection ends as status 400 without
// a request reaching the back end; the accepted cases mark where it stops.
TEST(HttpTlsTest, PolicyViolationsFailWith400) {
  struct Case {
    const char* name;
    OcspMode ocsp;
    ServerCertKind cert = ServerCertKind::Default;
    bool tls11Only = false;
    void (*client)(Http::Request&) = nullptr;
    bool accepted = false;
  };
  const Case cases[] = {
      {"no stapled OCSP answer", OcspMode::None},
      {"revoked OCSP answer", OcspMode::Revoked},
      {"expired OCSP answer", OcspMode::Expired},
      {"stale OCSP answer without nextUpdate", OcspMode::Stale},
      {"fresh OCSP answer without nextUpdate", OcspMode::FreshWithoutNextUpdate,
       ServerCertKind::Default, false, nullptr, true},
      {"server from an untrusted CA", OcspMode::Good, ServerCertKind::UntrustedCa},
      {"server certificate for another host", OcspMode::Good, ServerCertKind::WrongHost},
      {"server offering TLS 1.1 only", OcspMode::Good, ServerCertKind::Default, true},
      {"key not matching the certificate", OcspMode::Good, ServerCertKind::Default, false,
       [](Http::Request& r) { r.clientKey = Device().otherKeyPem.c_str(); }},
      {"wrong pass phrase", OcspMode::Good, ServerCertKind::Default, false,
       [](Http::Request& r) {
         r.clientKey = Device().encryptedKeyPem.c_str();
         r.clientKeyPassword = "not-the-pass-phrase";
       }},
      {"no client certificate", OcspMode::Good, ServerCertKind::Default, false,
       [](Http::Request& r) { r.clientCertificate = nullptr; }},
      {"no trusted certificates", OcspMode::Good, ServerCertKind::Default, false,
       [](Http::Request& r) { r.caCertificates = nullptr; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    BackendOptions options;
    options.ocsp = c.ocsp;
    options.serverCert = c.cert;
    if (c.tls11Only) {
      options.minTls = options.maxTls = TlsVersion::Tls1_1;
    }
    auto backend = StartBackend(options);
    ASSERT_NE(nullptr, backend);
    Http::Request request = DeviceRequest(Http::GET, backend->baseUrl("OPID") + "/test/method");
    request.keepAlive = true;
    if (c.client != nullptr) {
      c.client(request);
    }
    Http::Response response;
    Http::Perform(request, response);
    EXPECT_EQ(c.accepted ? 200 : 400, response.statusCode);
    EXPECT_EQ(c.accepted, response.answered);
    EXPECT_EQ(c.accepted, !response.headers.empty());
    EXPECT_EQ(c.accepted, request.handle != nullptr);
    EXPECT_EQ(c.accepted ? 1u : 0u, backend->requestCount());
    Http::Cleanup(request);
  }
}

// libcurl's compiled-in CA file or directory, as it reports them; empty when
// it names none.
std::string DefaultCaLocation(CURLINFO info) {
  std::string location;
  CURL* probe = curl_easy_init();
  char* reported = nullptr;
  if (probe != nullptr && curl_easy_getinfo(probe, info, &reported) == CURLE_OK &&
      reported != nullptr) {
    location = reported;
  }
  curl_easy_cleanup(probe);
  return location;
}

// libcurl fills the trust store from its compiled-in CA file after the
// SSL-context callback has installed the request's CAs. On a thread of its
// own mount namespace that file is overlaid with the system bundle plus the
// untrusted CA: a server that CA issued (with a good staple from it) must
// still be refused.
TEST(HttpTlsTest, TheSystemTrustStoreIsNeverConsulted) {
  const std::string caFile = DefaultCaLocation(CURLINFO_CAINFO);
  if (caFile.empty() || access(caFile.c_str(), R_OK) != 0) {
    GTEST_SKIP() << "libcurl names no readable default CA file";
  }
  LumTest::TempDir dir;
  const std::string bundle = dir.file("bundle.pem");
  LumTest::WriteFile(bundle, LumTest::ReadFile(caFile) + Pki().untrustedCaCertPem());
  BackendOptions options;
  options.serverCert = ServerCertKind::UntrustedCa;
  auto backend = StartBackend(options);
  ASSERT_NE(nullptr, backend);
  int unshareError = 0;
  std::string mountError;
  Http::Response response;
  std::thread([&] {
    if (unshare(CLONE_NEWNS) != 0) {
      unshareError = errno;
      return;
    }
    // Private first, so that the overlay stays in this namespace.
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(bundle.c_str(), caFile.c_str(), nullptr, MS_BIND, nullptr) != 0) {
      mountError = std::strerror(errno);
      return;
    }
    Http::Request request = DeviceRequest(Http::GET, backend->baseUrl("OPID") + "/test/method");
    Http::Perform(request, response);
  }).join();
  if (unshareError == EPERM) {
    GTEST_SKIP() << "no mount namespace of our own: " << std::strerror(unshareError);
  }
  ASSERT_EQ(0, unshareError) << std::strerror(unshareError);
  ASSERT_EQ("", mountError);
  EXPECT_EQ(400, response.statusCode);
  EXPECT_EQ(0u, backend->requestCount());
}

// A kept handle remembers the store libcurl cached for its first connection;
// a later request must be checked against its own CAs only.
TEST(HttpTlsTest, AKeptHandleTrustsNoEarlierRequestsCas) {
  BackendOptions options;
  auto trusted = StartBackend(options);
  options.serverCert = ServerCertKind::UntrustedCa;
  auto untrusted = StartBackend(options);
  ASSERT_TRUE(trusted && untrusted);
  const std::string bothCas = Pki().caCertPem() + Pki().untrustedCaCertPem();
  Http::Request request = DeviceRequest(Http::GET, trusted->baseUrl("OPID") + "/test/method");
  request.caCertificates = bothCas.c_str();
  request.keepAlive = true;
  Http::Response response;
  Http::Perform(request, response);
  ASSERT_EQ(200, response.statusCode);
  ASSERT_NE(nullptr, request.handle);

  request.caCertificates = Pki().caCertPem().c_str();
  request.url = untrusted->baseUrl("OPID") + "/test/method";
  Http::Perform(request, response);
  EXPECT_EQ(400, response.statusCode);
  EXPECT_EQ(0u, untrusted->requestCount());
  Http::Cleanup(request);
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
        succeeded += response.statusCode == 201 && response.body == "{\"echo\":\"" + tag + "\"}";
      }
      Http::Cleanup(request);
      EXPECT_EQ(nullptr, request.handle);
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(kThreads * kCallsPerThread, succeeded.load());
}

// libcurl's global state is set up at most once and only torn down when set up.
TEST(HttpGlobalTest, GlobalSetUpHappensOnlyOnRequestAndOnce) {
  LumTest::LogCapture capture("trace");
  Http::Initialize(true, false);
  Http::Initialize(true, true);
  Http::Initialize(true, true);
  Http::Terminate();
  Http::Terminate();
  std::vector<std::string> seen;
  for (const std::string& message : capture.messages()) {
    if (message.find("erforming curl_global_") != std::string::npos) {
      seen.push_back(message);
    }
  }
  EXPECT_EQ((std::vector<std::string>{
                "Not performing curl_global_init()", "Performing curl_global_init()",
                "Not performing curl_global_init()", "Not performing curl_global_cleanup()"}),
            seen);
}

}  // namespace
