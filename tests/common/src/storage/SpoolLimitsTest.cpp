#include "common/src/storage/SpoolLimits.h"

#include <gtest/gtest.h>

#include <limits>

#include "tests/fakes/LogCapture.h"

namespace zagent::common::internal {
namespace {

TEST(SpoolLimitsTest, StartsWithTenMegabytesTenMinutesAndAHundredKilobytes) {
  SpoolLimits limits;
  limits.Apply(0, 0, 0);
  EXPECT_EQ(limits.MaxDiskSize(), 10'485'760U);
  EXPECT_EQ(limits.MaxFileAge(), 600U);
  EXPECT_EQ(limits.MaxFileSize(), 102'400U);
}

TEST(SpoolLimitsTest, AZeroLeavesALimitAsItIs) {
  SpoolLimits limits;
  limits.Apply(5, 60, 7);
  limits.Apply(0, 30, 0);
  EXPECT_EQ(limits.MaxDiskSize(), 5U * 1024 * 1024);
  EXPECT_EQ(limits.MaxFileAge(), 30U);
  EXPECT_EQ(limits.MaxFileSize(), 7U * 1024);
}

TEST(SpoolLimitsTest, AFileNeverFillsTheWholeDiskLimit) {
  const fakes::LogCapture log;
  SpoolLimits limits;
  limits.Apply(1, 60, 1023);
  EXPECT_EQ(limits.MaxFileSize(), 1023U * 1024);
  EXPECT_EQ(log.Count("SpoolStorage: Max file size"), 0);
  limits.Apply(1, 60, 1024);
  EXPECT_EQ(limits.MaxFileSize(), 512U * 1024);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_WARNING,
                      "SpoolStorage: Max file size 1048576 does not fit max disk size 1048576. Using 524288."))
      << log.All();
  // A disk limit that shrinks below a file that was fine before counts too.
  limits.Apply(100, 60, 50 * 1024);
  limits.Apply(10, 0, 0);
  EXPECT_EQ(limits.MaxFileSize(), 5U * 1024 * 1024);
}

TEST(SpoolLimitsTest, HugeValuesDoNotOverflow) {
  constexpr std::uint64_t kHuge = std::numeric_limits<std::uint64_t>::max();
  SpoolLimits limits;
  limits.Apply(kHuge, kHuge, kHuge);
  EXPECT_GE(limits.MaxDiskSize(), std::uint64_t{1} << 61);
  EXPECT_LT(limits.MaxFileSize(), limits.MaxDiskSize());
  EXPECT_TRUE(limits.HasFreeSpace(0));
  EXPECT_FALSE(limits.HasFreeSpace(limits.MaxDiskSize()));
  // Nanoseconds since the epoch plus this age still fit a signed 64-bit number.
  EXPECT_LT(limits.MaxFileAge(), 7'000'000'000U);
}

TEST(SpoolLimitsTest, FreeSpaceIsRoomForOneMoreFile) {
  SpoolLimits limits;
  limits.Apply(1, 60, 256);
  EXPECT_TRUE(limits.HasFreeSpace(768 * 1024 - 1));
  EXPECT_FALSE(limits.HasFreeSpace(768 * 1024));
}

}  // namespace
}  // namespace zagent::common::internal
