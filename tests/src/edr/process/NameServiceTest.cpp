#include "src/edr/process/NameService.h"

#include <gtest/gtest.h>
#include <nss.h>
#include <sys/resource.h>

#include <thread>

#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

constexpr std::uint32_t kNobody = 3'987'654'321U;  // in no database

TEST(NameServiceTest, FindsTheNamesOfUsersAndGroups) {
  EXPECT_EQ(UserName(0), "root");
  EXPECT_EQ(GroupName(0), "root");
  EXPECT_EQ(UserName(1), "daemon");
}

TEST(NameServiceTest, AnswersTheDigitsOfAnUnknownUserAndWarnsEachTime) {
  const fakes::LogCapture log;
  EXPECT_EQ(UserName(kNobody), "3987654321");
  EXPECT_EQ(UserName(kNobody), "3987654321");
  EXPECT_EQ(log.Count("User name not found for uid 3987654321"), 2) << log.All();
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_WARNING, "User name not found for uid 3987654321"));
}

TEST(NameServiceTest, AnswersTheDigitsOfAnUnknownGroupAndWarnsEachTime) {
  const fakes::LogCapture log;
  EXPECT_EQ(GroupName(kNobody), "3987654321");
  EXPECT_EQ(GroupName(kNobody), "3987654321");
  EXPECT_EQ(log.Count("Group name not found for gid 3987654321"), 2) << log.All();
}

TEST(NameServiceTest, AnswersTheDigitsAndWarnsWhenADatabaseCannotBeRead) {
  // Only the files are asked, so that no other service of this host has the last word.
  ASSERT_EQ(__nss_configure_lookup("passwd", "files"), 0);
  ASSERT_EQ(__nss_configure_lookup("group", "files"), 0);
  const fakes::LogCapture log;
  EXPECT_EQ(UserName(kNobody), "3987654321");
  EXPECT_EQ(GroupName(kNobody), "3987654321");
  struct rlimit files {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &files), 0);
  const struct rlimit none = {0, files.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const std::string user = UserName(kNobody - 1);
  const std::string group = GroupName(kNobody - 1);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &files), 0);
  EXPECT_EQ(user, "3987654320");
  EXPECT_EQ(group, "3987654320");
  EXPECT_TRUE(
      log.Has(Poco::Message::PRIO_WARNING, "Failed to get user name for uid 3987654320: Too many open files (24)"))
      << log.All();
  EXPECT_TRUE(
      log.Has(Poco::Message::PRIO_WARNING, "Failed to get group name for gid 3987654320: Too many open files (24)"))
      << log.All();
}

TEST(NameServiceTest, IsAskedByManyThreadsAtOnce) {
  const auto ask = [] {
    for (std::uint32_t id = 0; id < 50; ++id) {
      EXPECT_EQ(UserName(id % 2), id % 2 == 0 ? "root" : "daemon");
      EXPECT_FALSE(GroupName(id).empty());
    }
  };
  std::thread first(ask);
  std::thread second(ask);
  first.join();
  second.join();
}

}  // namespace
}  // namespace zagent::common
