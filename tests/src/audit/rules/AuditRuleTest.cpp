#include "src/audit/rules/AuditRule.h"

#include <gtest/gtest.h>
#include <libaudit.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/fakes/FakeAuditNetlink.h"

extern "C" int _audit_syscalladded;  // NOLINT: libaudit's own

namespace zagent::audit::internal {
namespace {

using fakes::SeenRule;

constexpr std::uint32_t kArchX86_64 = 0xC000003E;
constexpr unsigned kExitGroup = 231;  // number of the call on x86-64

bool IsRefused(const audit_rule_data* rule, std::size_t size) {
  try {
    const AuditRule copy(rule, size);
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "AuditRule: 'rule' is null or invalid");
    return true;
  }
  return false;
}

TEST(AuditRuleTest, BeginsOnTheExitListWithTheActionAlways) {
  AuditRule rule;
  EXPECT_EQ(rule.GetList(), AuditRule::List::Exit);
  EXPECT_EQ(rule.GetAction(), AuditRule::Action::Always);
  EXPECT_EQ(rule.Get()->flags, 4U);
  EXPECT_EQ(rule.Get()->action, 2U);
  EXPECT_EQ(rule.Get()->field_count, 0U);
  EXPECT_EQ(rule.GetKey(), "");
}

TEST(AuditRuleTest, HoldsArchitectureProcessSyscallAndKey) {
  AuditRule rule(AuditRule::List::Exit, AuditRule::Action::Never);
  ASSERT_TRUE(rule.AddField("arch=b64"));
  ASSERT_TRUE(rule.AddField("pid=4711"));
  ASSERT_TRUE(rule.AddSyscall("exit_group"));
  ASSERT_TRUE(rule.AddKey("the key"));
  const SeenRule seen(*rule.Get());
  EXPECT_EQ(seen.fields, (std::vector<SeenRule::Field>{{AUDIT_ARCH, AUDIT_EQUAL, kArchX86_64, ""},
                                                       {AUDIT_PID, AUDIT_EQUAL, 4711, ""},
                                                       {AUDIT_FILTERKEY, AUDIT_EQUAL, 7, "the key"}}));
  EXPECT_TRUE(seen.HasSyscall(kExitGroup));
  EXPECT_EQ(seen.SyscallCount(), 1U);
  EXPECT_EQ(seen.action, 0U);
}

TEST(AuditRuleTest, IsIdenticalToARuleThatSaysTheSameOnly) {
  const auto watch = [](const std::string& path, std::uint32_t permissions, const std::string& key) {
    AuditRule rule;
    EXPECT_TRUE(rule.WatchDirectory(path) && rule.SetPermissions(permissions) && rule.AddKey(key));
    return rule;
  };
  const std::string identity = watch("/a", AUDIT_PERM_WRITE, "key").Identity();
  EXPECT_EQ(watch("/a", AUDIT_PERM_WRITE, "key").Identity(), identity);
  EXPECT_NE(watch("/b", AUDIT_PERM_WRITE, "key").Identity(), identity);
  EXPECT_NE(watch("/a", AUDIT_PERM_READ, "key").Identity(), identity);
  EXPECT_NE(watch("/a", AUDIT_PERM_WRITE, "kez").Identity(), identity);
  EXPECT_NE(watch("/ak", AUDIT_PERM_WRITE, "ey").Identity(), identity);
  AuditRule listed = watch("/a", AUDIT_PERM_WRITE, "key");
  listed.Get()->mask[AUDIT_BITMASK_SIZE - 1] &= 0xFFFFU;  // the kernel does not list the names of classes
  EXPECT_EQ(listed.Identity(), identity);
}

TEST(AuditRuleTest, TakesTheArchitectureAgainAfterAKeyWasAdded) {
  for (int i = 0; i < 2; ++i) {
    AuditRule rule;
    EXPECT_TRUE(rule.AddField("arch=b64")) << "round " << i;
    EXPECT_TRUE(rule.AddAllSyscalls());
    EXPECT_TRUE(rule.AddKey("key"));
  }
}

TEST(AuditRuleTest, LeavesTheLibrarysFlagAsItWas) {
  for (const int before : {0, 1}) {
    _audit_syscalladded = before;
    AuditRule rule;
    EXPECT_TRUE(rule.AddField("arch=b64"));
    EXPECT_TRUE(rule.AddKey("key"));
    EXPECT_EQ(_audit_syscalladded, before);
  }
  _audit_syscalladded = 0;
}

TEST(AuditRuleTest, ReadsTheOperatorsOfItsFields) {
  AuditRule rule;
  ASSERT_TRUE(rule.AddField("auid!=4294967295"));
  ASSERT_TRUE(rule.AddField("a0&65536"));
  const SeenRule seen(*rule.Get());
  EXPECT_EQ(seen.fields, (std::vector<SeenRule::Field>{{AUDIT_LOGINUID, AUDIT_NOT_EQUAL, 4294967295U, ""},
                                                       {AUDIT_ARG0, AUDIT_BIT_MASK, 65536, ""}}));
}

TEST(AuditRuleTest, RefusesAFieldThatTheLibraryDoesNotKnow) {
  AuditRule rule;
  EXPECT_FALSE(rule.AddField("weather=fine"));
  EXPECT_FALSE(rule.AddField("msgtype=EOE"));  // only on the exclude list
  EXPECT_FALSE(rule.AddSyscall("teleport"));
}

TEST(AuditRuleTest, ExcludesAMessageType) {
  AuditRule rule(AuditRule::List::Exclude, AuditRule::Action::Always);
  ASSERT_TRUE(rule.AddField("msgtype=EOE"));
  const SeenRule seen(*rule.Get());
  EXPECT_EQ(seen.flags, 5U);
  EXPECT_EQ(seen.fields, (std::vector<SeenRule::Field>{{AUDIT_MSGTYPE, AUDIT_EQUAL, 1320, ""}}));
  EXPECT_TRUE(rule.IsMessageTypeExclusion(1320));
  EXPECT_FALSE(rule.IsMessageTypeExclusion(1300));
  EXPECT_FALSE(AuditRule().IsMessageTypeExclusion(1320));
}

TEST(AuditRuleTest, WatchesADirectoryWithPermissionsAndKey) {
  AuditRule rule;
  ASSERT_TRUE(rule.WatchDirectory("/etc/ssh"));
  ASSERT_TRUE(rule.SetPermissions(AUDIT_PERM_WRITE | AUDIT_PERM_ATTR));
  ASSERT_TRUE(rule.AddKey("a-rule"));
  const SeenRule seen(*rule.Get());
  EXPECT_EQ(seen.fields,
            (std::vector<SeenRule::Field>{{AUDIT_DIR, AUDIT_EQUAL, 8, "/etc/ssh"},
                                          {AUDIT_PERM, AUDIT_EQUAL, AUDIT_PERM_WRITE | AUDIT_PERM_ATTR, ""},
                                          {AUDIT_FILTERKEY, AUDIT_EQUAL, 6, "a-rule"}}));
  EXPECT_TRUE(seen.HasAllSyscalls());
  EXPECT_EQ(rule.GetKey(), "a-rule");  // behind the path in the buffer
  EXPECT_EQ(rule.Get()->buflen, 14U);
}

TEST(AuditRuleTest, CutsTheTrailingSlashOfAFileOnly) {
  AuditRule file;
  ASSERT_TRUE(file.WatchFile("/etc/passwd//"));
  EXPECT_EQ(SeenRule(*file.Get()).Text(AUDIT_WATCH), "/etc/passwd");
  AuditRule folder;
  ASSERT_TRUE(folder.WatchDirectory("/etc/"));
  EXPECT_EQ(SeenRule(*folder.Get()).Text(AUDIT_DIR), "/etc/");
  AuditRule root;
  ASSERT_TRUE(root.WatchFile("/"));
  EXPECT_EQ(SeenRule(*root.Get()).Text(AUDIT_WATCH), "/");
}

TEST(AuditRuleTest, RefusesAPathThatTheKernelWouldReadOtherwise) {
  AuditRule rule;
  EXPECT_FALSE(rule.WatchFile(""));
  EXPECT_FALSE(rule.WatchFile(std::string("/etc\0/passwd", 12)));
  EXPECT_FALSE(rule.WatchDirectory("/" + std::string(4096, 'd')));
  EXPECT_EQ(rule.Get()->field_count, 0U);
}

TEST(AuditRuleTest, WatchesOnlyFromAnEmptyRuleOn) {
  AuditRule rule;
  ASSERT_TRUE(rule.AddField("pid=1"));
  EXPECT_FALSE(rule.WatchDirectory("/etc"));
}

TEST(AuditRuleTest, LimitsACallToAPathWithoutAPermission) {
  AuditRule rule;
  ASSERT_TRUE(rule.AddField("arch=b64") && rule.AddField("a2&0x240") && rule.AddSyscall("openat"));
  ASSERT_TRUE(rule.LimitToDirectory("/srv/a!=b"));
  ASSERT_TRUE(rule.AddKey("key"));
  const SeenRule seen(*rule.Get());
  EXPECT_EQ(seen.fields, (std::vector<SeenRule::Field>{{AUDIT_ARCH, AUDIT_EQUAL, kArchX86_64, ""},
                                                       {AUDIT_ARG2, AUDIT_BIT_MASK, 0x240, ""},
                                                       {AUDIT_DIR, AUDIT_EQUAL, 9, "/srv/a!=b"},
                                                       {AUDIT_FILTERKEY, AUDIT_EQUAL, 3, "key"}}));
  EXPECT_EQ(seen.SyscallCount(), 1U);
  AuditRule file;
  ASSERT_TRUE(file.LimitToFile("/etc/passwd/"));
  EXPECT_EQ(SeenRule(*file.Get()).fields,
            (std::vector<SeenRule::Field>{{AUDIT_WATCH, AUDIT_EQUAL, 11, "/etc/passwd"}}));
  for (const std::string& path : {std::string(), std::string("/a\0b", 4), "/" + std::string(4096, 'd')}) {
    EXPECT_FALSE(file.LimitToFile(path));
    EXPECT_FALSE(file.LimitToDirectory(path));
  }
  EXPECT_EQ(file.Get()->field_count, 1U);
}

TEST(AuditRuleTest, RefusesMoreFieldsThanTheKernelTakes) {
  AuditRule rule;
  for (int i = 0; i < AUDIT_MAX_FIELDS; ++i) ASSERT_TRUE(rule.LimitToDirectory("/srv"));
  EXPECT_FALSE(rule.LimitToDirectory("/srv"));
}

TEST(AuditRuleTest, HoldsOperationsOfIoUring) {
  AuditRule rule(AuditRule::List::IoUring);
  ASSERT_TRUE(rule.AddNumber(18) && rule.AddNumber(42));
  ASSERT_TRUE(rule.LimitToDirectory("/srv") && rule.AddKey("key"));
  EXPECT_EQ(rule.GetList(), AuditRule::List::IoUring);
  const SeenRule seen(*rule.Get());
  EXPECT_EQ(seen.flags, 7U);
  EXPECT_TRUE(seen.HasSyscall(18) && seen.HasSyscall(42));
  EXPECT_EQ(seen.SyscallCount(), 2U);
  EXPECT_EQ(seen.fields, (std::vector<SeenRule::Field>{{AUDIT_DIR, AUDIT_EQUAL, 4, "/srv"},
                                                       {AUDIT_FILTERKEY, AUDIT_EQUAL, 3, "key"}}));
  EXPECT_EQ(rule.GetKey(), "key");
  EXPECT_FALSE(rule.AddNumber(2048));
}

TEST(AuditRuleTest, HasRoomForTheLongestPathAndTheLongestKey) {
  AuditRule rule;
  const std::string path = "/" + std::string(4094, 'd');
  const std::string key(256, 'k');
  ASSERT_TRUE(rule.WatchDirectory(path));
  ASSERT_TRUE(rule.AddKey(key));
  EXPECT_EQ(SeenRule(*rule.Get()).Path(), path);
  EXPECT_EQ(rule.GetKey(), key);
}

TEST(AuditRuleTest, RefusesKeysThatTheLibraryOrTheKernelWouldMisread) {
  AuditRule rule;
  ASSERT_TRUE(rule.AddAllSyscalls());
  for (const std::string& key :
       {std::string(), std::string(257, 'k'), std::string("a!=b"), std::string("a>=b"), std::string("a<=b"),
        std::string("a&=b"), std::string("a\001b"), std::string("a\0b", 3)}) {
    EXPECT_NE(AuditRule::WhyRefused(key), nullptr) << key;
    EXPECT_FALSE(rule.AddKey(key)) << key;
  }
  EXPECT_EQ(rule.Get()->field_count, 0U);
  EXPECT_EQ(AuditRule::WhyRefused("a=b<c>d&e!f"), nullptr);
  ASSERT_TRUE(rule.AddKey("a=b<c>d&e!f"));
  EXPECT_EQ(rule.GetKey(), "a=b<c>d&e!f");
}

class ListedRuleTest : public ::testing::Test {
 protected:
  ListedRuleTest() {
    AuditRule rule;
    EXPECT_TRUE(rule.WatchFile("/etc/passwd"));
    EXPECT_TRUE(rule.AddKey("key"));
    bytes_.resize(sizeof(audit_rule_data) + rule.Get()->buflen);
    std::memcpy(bytes_.data(), rule.Get(), bytes_.size());
  }
  audit_rule_data* Rule() { return reinterpret_cast<audit_rule_data*>(bytes_.data()); }

  std::vector<char> bytes_;
};

TEST_F(ListedRuleTest, IsCopied) {
  AuditRule copy(Rule(), bytes_.size());
  EXPECT_EQ(SeenRule(*copy.Get()), SeenRule(*Rule()));
  bytes_.assign(bytes_.size(), 0);
  EXPECT_EQ(copy.GetKey(), "key");
}

TEST_F(ListedRuleTest, IsRefusedWhenItIsNull) {
  EXPECT_TRUE(IsRefused(nullptr, 2000));
}

TEST_F(ListedRuleTest, IsRefusedWhenItIsCutShort) {
  EXPECT_TRUE(IsRefused(Rule(), sizeof(audit_rule_data) - 1));
  EXPECT_TRUE(IsRefused(Rule(), bytes_.size() - 1));
}

TEST_F(ListedRuleTest, IsRefusedWhenItsNumbersPointOutsideOfIt) {
  Rule()->field_count = AUDIT_MAX_FIELDS + 1;
  EXPECT_TRUE(IsRefused(Rule(), bytes_.size()));
  Rule()->field_count = 3;
  EXPECT_FALSE(IsRefused(Rule(), bytes_.size()));
  Rule()->values[2] = 4;
  EXPECT_TRUE(IsRefused(Rule(), bytes_.size()));
  Rule()->values[2] = 4'294'967'295U;
  EXPECT_TRUE(IsRefused(Rule(), bytes_.size()));
}

}  // namespace
}  // namespace zagent::audit::internal
