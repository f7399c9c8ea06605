#include <gtest/gtest.h>

#include <cstring>

#include "Platform/RandomUtil.h"

namespace {

using Lum::Core::RandomUtil;

TEST(RandomUtil, DrawsFillTheWholeBufferAndDiffer) {
  const unsigned seed = 0x12345678;
  RandomUtil::SetSeed(&seed, sizeof(seed));
  // Guard bytes around the buffer must stay untouched.
  unsigned char first[66];
  unsigned char second[66];
  memset(first, 0xa5, sizeof(first));
  memset(second, 0xa5, sizeof(second));
  RandomUtil::GetBytes(first + 1, 64);
  RandomUtil::GetBytes(second + 1, 64);
  EXPECT_EQ(first[0], 0xa5);
  EXPECT_EQ(first[65], 0xa5);
  EXPECT_NE(memcmp(first + 1, second + 1, 64), 0);
  // 64 random bytes keep the fill pattern in every byte with probability 2^-512.
  unsigned char pattern[64];
  memset(pattern, 0xa5, sizeof(pattern));
  EXPECT_NE(memcmp(first + 1, pattern, 64), 0);
  RandomUtil::Cleanup();
}

}  // namespace
