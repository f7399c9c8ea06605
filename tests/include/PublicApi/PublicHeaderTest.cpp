// The public header compiles as C++ and keeps the record layout a C host sees.
#include <lum.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

namespace {

TEST(PublicHeader, StatusRecordHasTwentyFieldsInOrder) {
  static_assert(std::is_standard_layout<LumStatus>::value, "C layout");
  EXPECT_LT(offsetof(LumStatus, deviceAgentState), offsetof(LumStatus, testMode));
  EXPECT_LT(offsetof(LumStatus, testMode), offsetof(LumStatus, sessionState));
  EXPECT_LT(offsetof(LumStatus, sessionState), offsetof(LumStatus, sdkVersion));
  EXPECT_EQ(offsetof(LumStatus, updateHash) - offsetof(LumStatus, sdkVersion), 10 * sizeof(char*));
  EXPECT_EQ(offsetof(LumStatus, updatePercentDownloaded) - offsetof(LumStatus, updateState),
            5 * sizeof(unsigned int));
}

TEST(PublicHeader, ResultCodesAndEnumerationsHaveTheirWireValues) {
  EXPECT_EQ(LUM_RESULT_SUCCESS, 0u);
  EXPECT_EQ(LUM_RESULT_NOT_INITIALIZED, 1u);
  EXPECT_EQ(LUM_RESULT_REFUSED, 2u);
  EXPECT_EQ(LUM_RESULT_TERMINATING, 3u);
  EXPECT_EQ(LUM_RESULT_NOT_QUEUED, 4u);
  EXPECT_EQ(LUM_RESULT_BAD_ARGUMENT, 5u);
  EXPECT_EQ(LumDeviceAgentFactoryResetting, 3);
  EXPECT_EQ(LumSessionUnsupported, 8);
  EXPECT_EQ(LumSoftwareUpdateConfirmed, 4);
}

}  // namespace
