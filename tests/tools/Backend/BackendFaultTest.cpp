#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

#include "BackendFixture.h"

namespace LumTest {
namespace {

using namespace Lum::Tools;
using std::chrono::milliseconds;
using std::chrono::seconds;

using BackendRecordTest = BackendTest;

TEST_F(BackendRecordTest, RecordsMethodHeadersAndBodiesAsSent) {
  CurlRequest remove = deviceRequest("delete", "/test/method?x=1");
  remove.headers = {"Date: 2024-01-02T03:04:05Z", "X-Extra:  padded  "};
  CurlResult removed = PerformCurl(remove);
  EXPECT_EQ(removed.status, 200);
  EXPECT_EQ(removed.body, "delete");

  std::string big(3 * 1024 * 1024, 'q');  // large enough for "Expect: 100-continue"
  EXPECT_EQ(PerformCurl(deviceRequest("POST", "/test/method", big)).body, "POST");
  CurlRequest chunked = deviceRequest("POST", "/test/method", std::string(5000, 'c'));
  chunked.post = false;
  chunked.chunked = true;
  EXPECT_EQ(PerformCurl(chunked).status, 200);

  std::vector<RecordedRequest> seen = backend_->requests();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].method, "delete");
  EXPECT_EQ(seen[0].target, "/test/method?x=1");
  EXPECT_EQ(seen[0].path, "/test/method");
  EXPECT_EQ(seen[0].header("date"), "2024-01-02T03:04:05Z");
  EXPECT_EQ(seen[0].header("X-EXTRA"), "padded");
  EXPECT_FALSE(seen[0].hasHeader("Content-Length"));
  EXPECT_EQ(seen[0].status, 200);
  EXPECT_LT(seen[0].sequence, seen[1].sequence);
  EXPECT_EQ(seen[1].body, big);
  EXPECT_TRUE(seen[1].hasHeader("Expect"));
  EXPECT_EQ(seen[2].body, std::string(5000, 'c'));
  EXPECT_EQ(seen[2].header("Transfer-Encoding"), "chunked");
}

TEST_F(BackendRecordTest, RecordsMultipartParts) {
  const std::string package("{\"items\":[]}\0\x01\xff", 15);
  CurlRequest upload = deviceRequest("POST", "/api/v1/dsdata/upload/package");
  upload.post = false;
  upload.parts = {{"data", "data", "", package}, {"token", "token", "", "tok-123"}};
  EXPECT_EQ(PerformCurl(upload).status, 404);  // no route yet, but recorded

  std::vector<RecordedRequest> seen = backend_->requestsTo("/api/v1/dsdata/upload/package");
  ASSERT_EQ(seen.size(), 1u);
  ASSERT_EQ(seen[0].parts.size(), 2u);
  ASSERT_NE(seen[0].part("data"), nullptr);
  EXPECT_EQ(seen[0].part("data")->filename, "data");
  EXPECT_EQ(seen[0].part("data")->content, package);
  EXPECT_EQ(seen[0].part("token")->content, "tok-123");
  EXPECT_EQ(seen[0].part("absent"), nullptr);
}

TEST_F(BackendRecordTest, ServesLargePatternedBodies) {
  const size_t kSize = 10 * 1024 * 1024;
  CurlResult result = PerformCurl(deviceRequest("GET", "/test/bytes/" + std::to_string(kSize)));
  ASSERT_TRUE(result.ok()) << result.error;
  ASSERT_EQ(result.body.size(), kSize);
  EXPECT_EQ(result.body.substr(0, 3), "abc");
  EXPECT_EQ(result.body[kSize - 1], static_cast<char>('a' + (kSize - 1) % 26));
  EXPECT_EQ(PerformCurl(deviceRequest("GET", "/test/bytes/12x")).status, 400);
}

TEST_F(BackendRecordTest, AnswerFaultsApplyToTheirPathAndCount) {
  backend_->injectFault("/api/v1/da/gidtoken", Fault{2, milliseconds(0), 503});
  EXPECT_EQ(PerformCurl(deviceRequest("POST", "/api/v1/da/gidtoken", "{}")).status, 503);
  EXPECT_EQ(PerformCurl(deviceRequest("GET", "/test/method")).status, 200);  // other path
  EXPECT_EQ(PerformCurl(deviceRequest("POST", "/api/v1/da/gidtoken", "{}")).status, 503);
  EXPECT_FALSE(registerDevice().empty());
  DeviceView view;
  ASSERT_TRUE(backend_->device(device_.commonName, &view));
  EXPECT_EQ(view.tokensIssued, 1u);  // faulted answers issued nothing

  Fault notJson;
  notJson.notJson = true;
  backend_->injectFault("*", notJson);
  CurlResult garbled = PerformCurl(deviceRequest("POST", "/api/v1/da/gidtoken", "{}"));
  EXPECT_EQ(garbled.status, 200);
  EXPECT_TRUE(Parse(garbled.body).isNull()) << garbled.body;

  Fault forever;
  forever.count = -1;
  forever.status = 428;
  backend_->injectFault("/test/method", forever);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(PerformCurl(deviceRequest("GET", "/test/method")).status, 428);
  }
  backend_->clearFaults();
  EXPECT_EQ(PerformCurl(deviceRequest("GET", "/test/method")).status, 200);
}

TEST_F(BackendRecordTest, ConnectionFaultsDropDelayAndStall) {
  Fault drop;
  drop.drop = true;
  backend_->injectFault("/test/method", drop);
  CurlResult dropped = PerformCurl(deviceRequest("GET", "/test/method"));
  EXPECT_FALSE(dropped.ok());
  EXPECT_EQ(dropped.status, 0);
  ASSERT_TRUE(backend_->waitForAnswers(1, seconds(10)));
  EXPECT_EQ(backend_->requests().back().status, 0);

  Fault delay;
  delay.delay = milliseconds(300);
  backend_->injectFault("/test/method", delay);
  auto start = std::chrono::steady_clock::now();
  CurlResult delayed = PerformCurl(deviceRequest("GET", "/test/method"));
  EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(300));
  EXPECT_EQ(delayed.body, "GET");  // a delay alone lets the route answer

  Fault stall;
  stall.stallAfterHeaders = seconds(30);
  backend_->injectFault("/test/method", stall);
  CurlRequest impatient = deviceRequest("GET", "/test/method");
  impatient.timeoutMs = 500;
  CurlResult stalled = PerformCurl(impatient);
  EXPECT_EQ(stalled.code, CURLE_OPERATION_TIMEDOUT) << stalled.error;
  EXPECT_EQ(stalled.status, 200);  // the headers did arrive
  EXPECT_TRUE(stalled.body.empty());
}

TEST_F(BackendRecordTest, StopEndsStalledAndIdleConnectionsPromptly) {
  Fault stall;
  stall.stallAfterHeaders = seconds(120);
  backend_->injectFault("/test/method", stall);
  auto stalledClient = std::async(std::launch::async, [this] {
    CurlRequest request = deviceRequest("GET", "/test/method");
    request.timeoutMs = 120000;
    return PerformCurl(request);
  });
  Fault delay;
  delay.delay = seconds(120);
  backend_->injectFault("/test/bytes/1", delay);
  auto delayedClient = std::async(std::launch::async, [this] {
    CurlRequest request = deviceRequest("GET", "/test/bytes/1");
    request.timeoutMs = 120000;
    return PerformCurl(request);
  });
  ASSERT_TRUE(backend_->waitForRequests(2, seconds(10)));

  auto stopped = std::async(std::launch::async, [this] { backend_->stop(); });
  ASSERT_EQ(stopped.wait_for(seconds(10)), std::future_status::ready);
  ASSERT_EQ(stalledClient.wait_for(seconds(10)), std::future_status::ready);
  ASSERT_EQ(delayedClient.wait_for(seconds(10)), std::future_status::ready);
  EXPECT_FALSE(stalledClient.get().ok());
  EXPECT_FALSE(delayedClient.get().ok());
  EXPECT_FALSE(PerformCurl(deviceRequest("GET", "/test/method")).ok());
}

TEST_F(BackendRecordTest, WaitingForRequestsHonoursItsDeadline) {
  EXPECT_FALSE(backend_->waitForRequests(1, milliseconds(50)));
  EXPECT_FALSE(backend_->waitForRequests("/test/method", 1, milliseconds(50)));
  std::thread client([this] { PerformCurl(deviceRequest("GET", "/test/method")); });
  EXPECT_TRUE(backend_->waitForRequests("/test/method", 1, seconds(10)));
  client.join();
  EXPECT_EQ(backend_->requestCount("/test/method"), 1u);
  backend_->clearRequests();
  EXPECT_EQ(backend_->requestCount(), 0u);
}

}  // namespace
}  // namespace LumTest
