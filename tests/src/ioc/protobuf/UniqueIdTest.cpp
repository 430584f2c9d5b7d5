#include "src/ioc/protobuf/UniqueId.h"

#include <gtest/gtest.h>

#include <string>

namespace zagent::ioc::internal::protobuf {
namespace {

TEST(UniqueIdTest, AFileIsNamedByItsPath) {
  // printf %s /etc/passwd | sha256sum
  EXPECT_EQ(UniquePathId("/etc/passwd"), "74acf31844532670be412c65b8251ee55d072549080b1cffdbea6b1a192230a0");
}

TEST(UniqueIdTest, AProcessIsNamedByPidCreationTimeAndImage) {
  // printf '100\0001700000000000000000\000/bin/sh' | sha256sum
  EXPECT_EQ(UniqueProcessId(100, 1'700'000'000'000'000'000, "/bin/sh"),
            "e0e80351c012537f2245543728ca4079c52ffb391865a060c895cd760d0807ea");
}

TEST(UniqueIdTest, PartsThatWouldReadTheSameWhenJoinedAreKeptApart) {
  EXPECT_NE(UniqueProcessId(1, 23, "/a"), UniqueProcessId(12, 3, "/a"));
  EXPECT_NE(UniqueId({"a", ""}), UniqueId({"a"}));
  EXPECT_NE(UniqueId({"", "a"}), UniqueId({"a"}));
}

TEST(UniqueIdTest, AnIdIsTheSameWheneverAndHoweverOftenItIsAskedFor) {
  const std::string first = UniquePathId("/0");
  const std::string longer = UniquePathId(std::string(4'000, 'x'));
  for (int i = 0; i < 10'000; ++i) ASSERT_NE(UniquePathId("/a" + std::to_string(i)), first);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(UniquePathId("/0"), first);
    EXPECT_EQ(UniquePathId(std::string(4'000, 'x')), longer);
    EXPECT_EQ(UniquePathId("/etc/passwd"), "74acf31844532670be412c65b8251ee55d072549080b1cffdbea6b1a192230a0");
  }
}

TEST(UniqueIdTest, NamesThatAreNoTextAreTheirBytes) {
  EXPECT_NE(UniquePathId("/a\xff"), UniquePathId("/a\xfe"));
}

}  // namespace
}  // namespace zagent::ioc::internal::protobuf
