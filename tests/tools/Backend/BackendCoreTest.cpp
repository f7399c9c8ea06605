#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "BackendFixture.h"

namespace LumTest {
namespace {

using namespace Lum::Tools;

constexpr const char* kGidToken = "/api/v1/da/gidtoken";
constexpr const char* kState = "/api/v1/da/state";
constexpr const char* kNotification = "/api/v1/da/notification";

class BackendCoreTest : public BackendTest {
 protected:
  LumJson::Value stateBody(uint32_t opidSeqNum, uint32_t gidSeqNum) const {
    LumJson::Value body(LumJson::objectValue);
    body["daTestMode"] = false;
    body["daId"] = "device-1";
    body["daModel"] = "M1";
    body["daSwVersion"] = "1.0";
    body["daOpidSeqNum"] = opidSeqNum;
    body["daGidSeqNum"] = gidSeqNum;
    body["suCheckForSoftwareUpdate"] = false;
    return body;
  }
  LumJson::Value synchronize(const std::string& token, uint32_t opid = 0, uint32_t gid = 0) {
    CurlResult result = postJson(kState, token, stateBody(opid, gid));
    EXPECT_EQ(result.status, 200) << result.body;
    return Parse(result.body);
  }
  bool notificationSaysSynchronized(const std::string& token) {
    LumJson::Value body(LumJson::objectValue);
    body["daOpidSeqNum"] = 0;
    body["daGidSeqNum"] = 0;
    CurlResult result = postJson(kNotification, token, body);
    EXPECT_EQ(result.status, 200) << result.body;
    return Parse(result.body)["daStateSynchronized"].asBool();
  }
};

TEST_F(BackendCoreTest, CallsNeedTheTokenIssuedToThisDevice) {
  LumJson::Value empty(LumJson::objectValue);
  EXPECT_EQ(postJson(kState, "", stateBody(0, 0)).status, 422);
  EXPECT_EQ(postJson(kNotification, "gid-made-up", empty).status, 422);

  std::string token = registerDevice();
  ASSERT_FALSE(token.empty());
  EXPECT_EQ(postJson(kState, token, stateBody(0, 0)).status, 200);
  EXPECT_EQ(postJson(kNotification, token, empty).status, 200);
  EXPECT_EQ(postJson(kState, token + "x", stateBody(0, 0)).status, 422);

  // A new registration replaces the token; the old one is no longer known.
  std::string second = registerDevice();
  ASSERT_FALSE(second.empty());
  EXPECT_NE(second, token);
  EXPECT_EQ(postJson(kState, token, stateBody(0, 0)).status, 422);
  EXPECT_EQ(postJson(kState, second, stateBody(0, 0)).status, 200);

  backend_->revokeGidToken();
  EXPECT_EQ(postJson(kNotification, second, empty).status, 422);

  DeviceView view;
  ASSERT_TRUE(backend_->device(device_.commonName, &view));
  EXPECT_EQ(view.tokensIssued, 2u);
  EXPECT_EQ(view.stateCalls, 2u);
  EXPECT_TRUE(view.gidToken.empty());
  EXPECT_EQ(backend_->deviceNames(), std::vector<std::string>{device_.commonName});
}

TEST_F(BackendCoreTest, CoreCallsRefuseOtherMethodsAndUnknownPathsAre404) {
  std::string token = registerDevice();
  CurlRequest get = deviceRequest("GET", kState);
  get.headers = {"Authorization: " + token};
  EXPECT_EQ(PerformCurl(get).status, 405);
  EXPECT_EQ(PerformCurl(deviceRequest("POST", "/api/v1/da/unknown", "{}")).status, 404);
  CurlResult notJson = PerformCurl([&] {
    CurlRequest r = deviceRequest("POST", kState, "not json");
    r.headers = {"Authorization: " + token};
    return r;
  }());
  EXPECT_EQ(notJson.status, 400);
}

TEST_F(BackendCoreTest, StateIsStoredAndAnsweredSynchronized) {
  std::string token = registerDevice();
  LumJson::Value answer = synchronize(token);
  EXPECT_TRUE(answer["daSynchronized"].asBool());
  EXPECT_TRUE(answer["daOpidSeqNum"].isUInt());
  EXPECT_TRUE(answer["daGidSeqNum"].isUInt());
  EXPECT_FALSE(answer.isMember("daEvents"));
  EXPECT_FALSE(answer.isMember("dsAllowedDataItemIds"));

  DeviceView view;
  ASSERT_TRUE(backend_->device(device_.commonName, &view));
  EXPECT_EQ(view.reportedState["daModel"].asString(), "M1");
  EXPECT_EQ(view.reportedState["daSwVersion"].asString(), "1.0");
  EXPECT_TRUE(notificationSaysSynchronized(token));

  backend_->setSynchronizedAnswer(false);
  EXPECT_FALSE(synchronize(token)["daSynchronized"].asBool());
}

TEST_F(BackendCoreTest, PushedChangesAreAnnouncedAndDeliveredOnce) {
  std::string token = registerDevice();
  LumJson::Value first = synchronize(token);
  uint32_t opid = first["daOpidSeqNum"].asUInt();
  uint32_t gid = first["daGidSeqNum"].asUInt();
  EXPECT_TRUE(notificationSaysSynchronized(token));

  LumJson::Value tunables(LumJson::objectValue);
  tunables["daPollDelayFixedMs"] = 1000;
  tunables["daSupportViewEnabled"] = false;
  backend_->pushTunables(tunables);
  backend_->setAllowedDataItemIds({"tv.power", "tv.channel"});
  backend_->setConsentUrl("https://consent.example/accept");
  backend_->queueEvent("showConsent", 7, "p=1");
  EXPECT_FALSE(notificationSaysSynchronized(token));

  LumJson::Value answer = synchronize(token, opid, gid);
  EXPECT_EQ(answer["daPollDelayFixedMs"].asUInt(), 1000u);
  EXPECT_FALSE(answer["daSupportViewEnabled"].asBool());
  EXPECT_EQ(answer["daOpidSeqNum"].asUInt(), opid + 1);
  EXPECT_EQ(answer["daGidSeqNum"].asUInt(), gid + 1);
  ASSERT_EQ(answer["dsAllowedDataItemIds"].size(), 2u);
  EXPECT_EQ(answer["dsAllowedDataItemIds"][1].asString(), "tv.channel");
  EXPECT_EQ(answer["daConsentUrl"].asString(), "https://consent.example/accept");
  ASSERT_EQ(answer["daEvents"].size(), 1u);
  EXPECT_EQ(answer["daEvents"][0]["event"].asString(), "showConsent");
  EXPECT_EQ(answer["daEvents"][0]["id"].asUInt(), 7u);
  EXPECT_EQ(answer["daEvents"][0]["parameters"].asString(), "p=1");
  EXPECT_TRUE(notificationSaysSynchronized(token));

  // Settings stay in every answer; events and sequence bumps happen once.
  LumJson::Value again = synchronize(token, opid + 1, gid + 1);
  EXPECT_EQ(again["daPollDelayFixedMs"].asUInt(), 1000u);
  EXPECT_EQ(again["daOpidSeqNum"].asUInt(), opid + 1);
  EXPECT_EQ(again["daGidSeqNum"].asUInt(), gid + 1);
  EXPECT_FALSE(again.isMember("daEvents"));

  // A later push merges into the earlier one.
  LumJson::Value more(LumJson::objectValue);
  more["daRetryDelayFixedMs"] = 50;
  backend_->pushTunables(more);
  LumJson::Value merged = synchronize(token, opid + 1, gid + 1);
  EXPECT_EQ(merged["daRetryDelayFixedMs"].asUInt(), 50u);
  EXPECT_EQ(merged["daPollDelayFixedMs"].asUInt(), 1000u);
  EXPECT_EQ(merged["daOpidSeqNum"].asUInt(), opid + 2);
}

TEST_F(BackendCoreTest, ConcurrentDevicesCallsAreAllServed) {
  const int kThreads = 4;
  const int kCallsEach = 5;
  std::atomic<int> served{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kCallsEach; ++i) {
        std::string token = registerDevice();
        long status = postJson(kState, token, stateBody(0, 0)).status;
        // Another thread may have re-registered the device in between.
        if (!token.empty() && (status == 200 || status == 422)) {
          ++served;
        }
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(served.load(), kThreads * kCallsEach);
  EXPECT_EQ(backend_->requestCount(kGidToken), static_cast<size_t>(kThreads * kCallsEach));
  EXPECT_TRUE(backend_->waitForAnswers(2 * kThreads * kCallsEach, std::chrono::seconds(10)));
}

}  // namespace
}  // namespace LumTest
