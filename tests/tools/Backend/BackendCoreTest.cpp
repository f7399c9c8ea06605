#include <gtest/gtest.h>

#include "BackendFixture.h"

namespace LumTest {
namespace {

using namespace Lum::Tools;

constexpr const char* kState = "/api/v1/da/state";
constexpr const char* kNotification = "/api/v1/da/notification";

using BackendCoreTest = BackendTest;

TEST_F(BackendCoreTest, CallsNeedTheTokenIssuedToThisDevice) {
  EXPECT_EQ(post(kState, "").statusCode, 422);
  EXPECT_EQ(post(kNotification, "gid-made-up").statusCode, 422);

  std::string token = registerDevice();
  ASSERT_FALSE(token.empty());
  EXPECT_EQ(post(kState, token, R"({"daModel":"M1"})").statusCode, 200);
  EXPECT_EQ(post(kNotification, token).statusCode, 200);
  EXPECT_EQ(post(kState, token + "x").statusCode, 422);

  // A new registration replaces the token; the old one is no longer known.
  std::string second = registerDevice();
  EXPECT_NE(second, token);
  EXPECT_EQ(post(kState, token).statusCode, 422);
  EXPECT_EQ(post(kState, second, R"({"daModel":"M2"})").statusCode, 200);

  backend_->revokeGidToken();
  EXPECT_EQ(post(kNotification, second).statusCode, 422);
  DeviceView view;
  ASSERT_TRUE(backend_->device(device_.commonName, &view));
  EXPECT_EQ(view.tokensIssued, 2u);
  EXPECT_EQ(view.stateCalls, 2u);
  EXPECT_EQ(view.reportedState["daModel"].asString(), "M2");
}

}  // namespace
}  // namespace LumTest
