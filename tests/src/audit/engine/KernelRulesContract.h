#pragma once

#include <gtest/gtest.h>
#include <libaudit.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iostream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "src/audit/channels/AuditNetlink.h"
#include "src/audit/engine/RuleEngine.h"
#include "src/audit/routing/OwnActivity.h"
#include "src/audit/rules/AuditRule.h"
#include "src/audit/rules/AuditSocket.h"
#include "src/audit/rules/Coverage.h"
#include "src/audit/rules/CreateRules.h"
#include "src/audit/rules/KernelRules.h"
#include "tests/fakes/FakeAuditNetlink.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeRule.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {

// Where the kernel of a contract test comes from. The real one is given without ownership.
struct ContractKernel {
  const char* name;
  std::shared_ptr<AuditNetlink> (*make)();
  bool (*takes_io_uring)();
};

// What the rule engine takes for granted about a kernel's rule lists. Holds for the double that the other tests use
// and, in a virtual machine, for real kernels. Leaves the lists as it found them.
class KernelRulesContract : public ::testing::TestWithParam<ContractKernel> {
 protected:
  using Keys = std::vector<std::string>;
  using Position = AuditSocket::Position;

  static constexpr const char* kKeyPrefix = "ostrel-contract-";

  ~KernelRulesContract() override {
    for (AuditRule& rule : socket_.GetRulesFromAudit()) {
      if (rule.GetKey().starts_with(kKeyPrefix)) socket_.Delete(rule);
    }
  }

  static std::string Key(const std::string& name) { return kKeyPrefix + name; }

  static AuditRule Folder(const std::string& path, const std::string& name) {
    AuditRule rule;
    EXPECT_TRUE(rule.WatchDirectory(path) && rule.SetPermissions(AUDIT_PERM_WRITE) && rule.AddKey(Key(name)));
    return rule;
  }
  static AuditRule File(const std::string& path, const std::string& name) {
    AuditRule rule;
    EXPECT_TRUE(rule.WatchFile(path) && rule.SetPermissions(AUDIT_PERM_ATTR) && rule.AddKey(Key(name)));
    return rule;
  }
  static AuditRule Syscall(const std::string& name) {
    AuditRule rule;
    // A process id that no process has: the test itself must go unheard.
    EXPECT_TRUE(rule.AddField("arch=b64") && rule.AddField("pid=999999999") && rule.AddSyscall("exit_group") &&
                rule.AddKey(Key(name)));
    return rule;
  }

  // The listed rules of this test, in the kernel's order.
  [[nodiscard]] std::vector<AuditRule> Listed() const {
    std::vector<AuditRule> listed = socket_.GetRulesFromAudit();
    std::erase_if(listed, [](const AuditRule& rule) { return !rule.GetKey().starts_with(kKeyPrefix); });
    return listed;
  }
  [[nodiscard]] Keys ListedKeys() const {
    Keys keys;
    for (const AuditRule& rule : Listed()) keys.push_back(rule.GetKey());
    return keys;
  }

  fakes::TempFolder folder_;
  std::shared_ptr<AuditNetlink> kernel_ = GetParam().make();
  AuditSocket socket_{*kernel_, "Contract"};
};

TEST_P(KernelRulesContract, ListsAFolderWatchAsItWasAdded) {
  AuditRule rule = Folder(folder_.Path(), "folder");
  ASSERT_EQ(socket_.Add(rule), 0);
  std::vector<AuditRule> listed = Listed();
  ASSERT_EQ(listed.size(), 1U);
  const fakes::SeenRule seen(*listed[0].Get());
  EXPECT_EQ(seen.fields, fakes::SeenRule(*rule.Get()).fields);
  EXPECT_EQ(seen.flags, static_cast<std::uint32_t>(AUDIT_FILTER_EXIT));
  EXPECT_EQ(seen.action, static_cast<std::uint32_t>(AUDIT_ALWAYS));
  EXPECT_TRUE(seen.HasAllSyscalls());
}

// By this a rule is known that is there already.
TEST_P(KernelRulesContract, ListsEveryKindOfRuleUnderTheIdentityThatItWasBuiltWith) {
  using edr::EventType;
  const edr::EventTypes all = {EventType::Read, EventType::Write, EventType::AttributeChange};
  const edr::EventTypes calls = {EventType::ProcessStart, EventType::ProcessExit};
  const std::vector<std::shared_ptr<const fakes::FakeRule>> rules = {
      fakes::FakeRule::Directory(Key("folder"), folder_.Path(), all),
      fakes::FakeRule::File(Key("file"), folder_ / "file", all),
      std::make_shared<const fakes::FakeRule>(Key("process"), edr::ObjectType::Process, "", calls),
      std::make_shared<const fakes::FakeRule>(Key("no call"), edr::ObjectType::Process, "",
                                              edr::EventTypes{EventType::AbnormalEnd})};
  std::set<std::string> built, listed;
  for (const auto& rule : rules) {
    for (AuditRule& created : CreateRules(*rule, {.extended = true})) {
      built.insert(created.Identity());
      ASSERT_EQ(socket_.Add(created), 0);
    }
  }
  for (const AuditRule& rule : Listed()) listed.insert(rule.Identity());
  EXPECT_EQ(built.size(), 12U);
  EXPECT_EQ(listed, built);
}

TEST_P(KernelRulesContract, RefusesATwinBehind) {
  AuditRule rule = Folder(folder_.Path(), "twin");
  ASSERT_EQ(socket_.Add(rule), 0);
  EXPECT_EQ(socket_.Add(rule), EEXIST);
  EXPECT_EQ(ListedKeys().size(), 1U);
}

TEST_P(KernelRulesContract, TakesATwinInFront) {
  AuditRule rule = Syscall("twin");
  ASSERT_EQ(socket_.Add(rule, Position::Front), 0);
  EXPECT_EQ(socket_.Add(rule, Position::Front), 0);
  EXPECT_EQ(ListedKeys().size(), 2U);
}

TEST_P(KernelRulesContract, RefusesAMissingFolderAndAMissingParent) {
  AuditRule folder = Folder(folder_ / "missing", "missing");
  EXPECT_EQ(socket_.Add(folder), ENOENT);
  AuditRule file = File(folder_ / "missing/file", "missing");
  EXPECT_EQ(socket_.Add(file), ENOENT);
  EXPECT_TRUE(ListedKeys().empty());
}

TEST_P(KernelRulesContract, SaysOfAPathThatLeadsNowhereThatNothingIsThere) {
  folder_.Write("file", "x");
  std::filesystem::create_symlink("loop", folder_ / "loop");
  for (const std::string& way : {std::string("file"), std::string("loop"), std::string(300, 'x')}) {
    AuditRule folder = Folder(folder_ / (way + "/sub"), "nowhere");
    EXPECT_TRUE(IsPathMissing(socket_.Add(folder))) << way;
    AuditRule file = File(folder_ / (way + "/sub/file"), "nowhere");
    EXPECT_TRUE(IsPathMissing(socket_.Add(file))) << way;
  }
  EXPECT_TRUE(ListedKeys().empty());
}

TEST_P(KernelRulesContract, TakesAMissingFile) {
  AuditRule rule = File(folder_ / "not-yet", "file");
  EXPECT_EQ(socket_.Add(rule), 0);
  std::vector<AuditRule> listed = Listed();
  ASSERT_EQ(listed.size(), 1U);
  EXPECT_EQ(fakes::SeenRule(*listed[0].Get()).Path(), folder_ / "not-yet");
}

TEST_P(KernelRulesContract, ListsWhatWasPutInFrontFirst) {
  AuditRule back = Syscall("back");
  AuditRule first = Syscall("first");
  AuditRule second = Syscall("second");
  ASSERT_EQ(socket_.Add(back), 0);
  ASSERT_EQ(socket_.Add(first, Position::Front), 0);
  ASSERT_EQ(socket_.Add(second, Position::Front), 0);
  EXPECT_EQ(ListedKeys(), (Keys{Key("second"), Key("first"), Key("back")}));
}

TEST_P(KernelRulesContract, DeletesByThePlainListOnly) {
  AuditRule rule = Syscall("front");
  ASSERT_EQ(socket_.Add(rule, Position::Front), 0);
  const int fd = kernel_->Open();
  ASSERT_GE(fd, 0);
  EXPECT_LT(kernel_->DeleteRule(fd, rule.Get(), AUDIT_FILTER_EXIT | AUDIT_FILTER_PREPEND, AUDIT_ALWAYS), 0);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_GT(kernel_->DeleteRule(fd, rule.Get(), AUDIT_FILTER_EXIT, AUDIT_ALWAYS), 0);
  kernel_->Close(fd);
  EXPECT_TRUE(ListedKeys().empty());
}

TEST_P(KernelRulesContract, DeletesARuleByItsListedForm) {
  AuditRule folder = Folder(folder_.Path(), "folder");
  AuditRule call = Syscall("call");
  AuditRule reading;
  ASSERT_TRUE(reading.WatchDirectory(folder_.Path()) && reading.SetPermissions(AUDIT_PERM_READ) &&
              reading.AddField("auid!=4294967295") && reading.AddKey(Key("reading")));
  ASSERT_EQ(socket_.Add(folder), 0);
  ASSERT_EQ(socket_.Add(call, Position::Front), 0);
  ASSERT_EQ(socket_.Add(reading), 0);
  ASSERT_EQ(ListedKeys().size(), 3U);
  for (AuditRule& listed : Listed()) EXPECT_EQ(socket_.Delete(listed), 0) << listed.GetKey();
  EXPECT_TRUE(ListedKeys().empty());
  EXPECT_EQ(socket_.Delete(folder), ENOENT);
}

TEST_P(KernelRulesContract, DeletesARuleThatWasBuiltAgain) {
  const auto rule = fakes::FakeRule::Directory(
      Key("rule"), folder_.Path(),
      {edr::EventType::Read, edr::EventType::Write, edr::EventType::Rename, edr::EventType::AttributeChange});
  for (AuditRule& created : CreateRules(*rule)) ASSERT_EQ(socket_.Add(created), 0);
  ASSERT_EQ(ListedKeys().size(), 2U);
  for (AuditRule& again : CreateRules(*rule)) EXPECT_EQ(socket_.Delete(again), 0);
  EXPECT_TRUE(ListedKeys().empty());
}

TEST_P(KernelRulesContract, TakesTheRulesOfExtendedCoverageForAFolderAndAFile) {
  const Coverage everything = FindCoverage(socket_, true);
  EXPECT_EQ(everything.io_uring, GetParam().takes_io_uring());
  const std::size_t expected = everything.io_uring ? 5 : 4;  // a watch, times and handles, open, openat, io_uring
  if (!everything.io_uring) std::cout << "This kernel has no rules for io_uring.\n";
  const edr::EventTypes types = {edr::EventType::Write, edr::EventType::AttributeChange};
  for (const auto& rule : {fakes::FakeRule::Directory(Key("extended"), folder_.Path(), types),
                           fakes::FakeRule::File(Key("extended"), folder_ / "file", types)}) {
    std::vector<AuditRule> created = CreateRules(*rule, everything);
    ASSERT_EQ(created.size(), expected);
    for (AuditRule& kernel_rule : created) ASSERT_EQ(socket_.Add(kernel_rule), 0);
    EXPECT_EQ(ListedKeys().size(), created.size());
    for (AuditRule& again : CreateRules(*rule, everything)) EXPECT_EQ(socket_.Delete(again), 0);
    EXPECT_TRUE(ListedKeys().empty());
  }
}

TEST_P(KernelRulesContract, KeepsAMessageTypeOnTheExcludeList) {
  AuditRule rule(AuditRule::List::Exclude, AuditRule::Action::Always);
  ASSERT_TRUE(rule.AddField("msgtype=EOE"));
  ASSERT_EQ(socket_.Add(rule, Position::Front), 0);
  const std::vector<AuditRule> listed = socket_.GetRulesFromAudit();
  EXPECT_EQ(std::count_if(listed.begin(), listed.end(),
                          [](const AuditRule& seen) { return seen.IsMessageTypeExclusion(AUDIT_EOE); }),
            1);
  EXPECT_EQ(socket_.Delete(rule), 0);
  EXPECT_EQ(socket_.Delete(rule), ENOENT);
}

TEST_P(KernelRulesContract, KeepsAKeyOfFullLength) {
  const std::string name(AUDIT_MAX_KEY_LEN - std::string(kKeyPrefix).size(), 'k');
  AuditRule rule = Folder(folder_.Path(), name);
  ASSERT_EQ(socket_.Add(rule), 0);
  EXPECT_EQ(ListedKeys(), (Keys{Key(name)}));
}

TEST_P(KernelRulesContract, AnEngineComesAndGoesWithoutTrace) {
  const std::size_t before = socket_.GetRulesFromAudit().size();
  fakes::FakeClock clock;
  IntakeCounters counters;
  {
    RuleEngine engine(*kernel_, {1, "/sbin/init", 1, "/opt/ostrel", OwnActivity::DefaultSiblingNames(), 1000}, counters,
                      clock);
    engine.AddRules("FIM", {fakes::FakeRule::Directory(Key("fim"), folder_.Path(), {edr::EventType::Write})});
    EXPECT_EQ(ListedKeys(), (Keys{Key("fim")}));

    Keys exclusions;
    for (const AuditRule& rule : socket_.GetRulesFromAudit()) {
      if (rule.GetKey().ends_with("_ostrel-edr")) exclusions.push_back(rule.GetKey());
    }
    EXPECT_EQ(exclusions, (Keys{"ostrel_exit_rule_ostrel-edr", "ostrel_ignore_rule_ostrel-edr"}));
    engine.UpdateExclusions(1, "/sbin/other-init");
    EXPECT_EQ(socket_.GetRulesFromAudit().size(), before + 7);
  }
  EXPECT_EQ(socket_.GetRulesFromAudit().size(), before);
}

}  // namespace zagent::audit::internal
