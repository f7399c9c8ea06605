#include <gtest/gtest.h>

#include "BackendFixture.h"

namespace LumTest {
namespace {

using namespace Lum::Tools;

constexpr const char* kState = "/api/v1/da/state";
constexpr const char* kNotification = "/api/v1/da/notification";

class BackendCoreTest : public BackendTest {
 protected:
  LumJson::Value synchronize(const std::string& token, uint32_t opid = 0, uint32_t gid = 0) {
    Http::Response response =
        post(kState, token,
             "{\"daModel\":\"M1\",\"daOpidSeqNum\":" + std::to_string(opid) +
                 ",\"daGidSeqNum\":" + std::to_string(gid) + "}");
    EXPECT_EQ(response.statusCode, 200) << response.body;
    return Parse(response.body);
  }
  bool notificationSaysSynchronized(const std::string& token) {
    Http::Response response = post(kNotification, token);
    EXPECT_EQ(response.statusCode, 200) << response.body;
    return Parse(response.body)["daStateSynchronized"].asBool();
  }
};

TEST_F(BackendCoreTest, CallsNeedTheTokenIssuedToThisDevice) {
  EXPECT_EQ(post(kState, "").statusCode, 422);
  EXPECT_EQ(post(kNotification, "gid-made-up").statusCode, 422);

  std::string token = registerDevice();
  ASSERT_FALSE(token.empty());
  EXPECT_EQ(post(kState, token).statusCode, 200);
  EXPECT_EQ(post(kNotification, token).statusCode, 200);
  EXPECT_EQ(post(kState, token + "x").statusCode, 422);

  // A new registration replaces the token; the old one is no longer known.
  std::string second = registerDevice();
  EXPECT_NE(second, token);
  EXPECT_EQ(post(kState, token).statusCode, 422);
  EXPECT_EQ(post(kState, second).statusCode, 200);

  backend_->revokeGidToken();
  EXPECT_EQ(post(kNotification, second).statusCode, 422);
  DeviceView view;
  ASSERT_TRUE(backend_->device(device_.commonName, &view));
  EXPECT_EQ(view.tokensIssued, 2u);
  EXPECT_EQ(view.stateCalls, 2u);
}

TEST_F(BackendCoreTest, PushedValuesAreAnnouncedAndDeliveredOnce) {
  std::string token = registerDevice();
  LumJson::Value first = synchronize(token);
  EXPECT_TRUE(first["daSynchronized"].asBool());
  EXPECT_FALSE(first.isMember("daEvents"));
  uint32_t opid = first["daOpidSeqNum"].asUInt();
  uint32_t gid = first["daGidSeqNum"].asUInt();
  DeviceView view;
  ASSERT_TRUE(backend_->device(device_.commonName, &view));
  EXPECT_EQ(view.reportedState["daModel"].asString(), "M1");
  EXPECT_TRUE(notificationSaysSynchronized(token));

  LumJson::Value tunables(LumJson::objectValue);
  tunables["daPollDelayFixedMs"] = 1000;
  backend_->pushTunables(tunables);
  backend_->setAllowedDataItemIds({"tv.power", "tv.channel"});
  backend_->setConsentUrl("https://consent.example/accept");
  backend_->queueEvent("showConsent", 7, "p=1");
  EXPECT_FALSE(notificationSaysSynchronized(token));

  LumJson::Value answer = synchronize(token, opid, gid);
  EXPECT_EQ(answer["daPollDelayFixedMs"].asUInt(), 1000u);
  EXPECT_EQ(answer["daOpidSeqNum"].asUInt(), opid + 1);
  EXPECT_EQ(answer["daGidSeqNum"].asUInt(), gid + 1);
  EXPECT_EQ(answer["dsAllowedDataItemIds"][1].asString(), "tv.channel");
  EXPECT_EQ(answer["daConsentUrl"].asString(), "https://consent.example/accept");
  ASSERT_EQ(answer["daEvents"].size(), 1u);
  EXPECT_EQ(answer["daEvents"][0]["event"].asString(), "showConsent");
  EXPECT_EQ(answer["daEvents"][0]["id"].asUInt(), 7u);
  EXPECT_EQ(answer["daEvents"][0]["parameters"].asString(), "p=1");
  EXPECT_TRUE(notificationSaysSynchronized(token));

  // Settings stay in every answer and a later push merges into them; events
  // and sequence bumps happen once per push.
  LumJson::Value more(LumJson::objectValue);
  more["daRetryDelayFixedMs"] = 50;
  backend_->pushTunables(more);
  backend_->setSynchronizedAnswer(false);
  LumJson::Value merged = synchronize(token, opid + 1, gid + 1);
  EXPECT_EQ(merged["daRetryDelayFixedMs"].asUInt(), 50u);
  EXPECT_EQ(merged["daPollDelayFixedMs"].asUInt(), 1000u);
  EXPECT_EQ(merged["daOpidSeqNum"].asUInt(), opid + 2);
  EXPECT_EQ(merged["daGidSeqNum"].asUInt(), gid + 1);
  EXPECT_FALSE(merged.isMember("daEvents"));
  EXPECT_FALSE(merged["daSynchronized"].asBool());
}

}  // namespace
}  // namespace LumTest
