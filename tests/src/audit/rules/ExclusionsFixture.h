#pragma once

#include <gtest/gtest.h>
#include <libaudit.h>

#include <cstdint>
#include <string>
#include <vector>

#include "src/audit/rules/Exclusions.h"
#include "tests/fakes/FakeAuditNetlink.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit::internal {

// The exclusions of a program and its agent, on a kernel double and a procfs of their own.
class ExclusionsFixture : public ::testing::Test {
 protected:
  static constexpr std::int32_t kOwnPid = 500;
  static constexpr std::int32_t kAgentPid = 400;

  [[nodiscard]] fakes::SeenRule Rule(const std::string& key) const {
    const std::vector<fakes::SeenRule> rules = kernel_.RulesWithKey(key);
    EXPECT_EQ(rules.size(), 1U) << key;
    return rules.empty() ? fakes::SeenRule() : rules.front();
  }
  [[nodiscard]] int PositionOf(const std::string& key) const {
    const std::vector<fakes::SeenRule> rules = kernel_.Rules();
    for (std::size_t i = 0; i < rules.size(); ++i) {
      if (rules[i].Key() == key) return static_cast<int>(i);
    }
    return -1;
  }
  [[nodiscard]] std::size_t MessageTypeRules() const {
    std::size_t count = 0;
    for (const fakes::SeenRule& rule : kernel_.Rules()) count += rule.Find(AUDIT_MSGTYPE) != nullptr ? 1 : 0;
    return count;
  }
  void AddForeign(const std::string& key) {
    AuditRule rule;
    ASSERT_TRUE(rule.AddField("arch=b64") && rule.AddSyscall("execve") && rule.AddKey(key));
    ASSERT_EQ(socket_.Add(rule), 0);
  }
  // Lets the kernel refuse the rule with this key.
  void RefuseToAdd(const std::string& key, int error) {
    kernel_.refuse_add = [key, error](const fakes::SeenRule& rule) { return rule.Key() == key ? error : 0; };
  }

  bool StartProcesses() const {
    processes_.Start(kOwnPid, 10);
    processes_.Start(kAgentPid, 20);
    processes_.Start(kAgentPid + 1, 21);  // the next agent
    return true;
  }
  void LookAndRemove() {
    if (exclusions_.EndMissing()) exclusions_.RemoveEnded(socket_);
  }

  fakes::LogCapture log_;
  fakes::FakeAuditNetlink kernel_;
  AuditSocket socket_{kernel_, "Test"};
  fakes::FakeProcFs processes_;
  // Their start is read when they are entered.
  const bool processes_are_there_ = StartProcesses();
  Exclusions exclusions_{kOwnPid, kAgentPid, "/opt/ostrel/bin/host-warden", processes_.Root()};
};

}  // namespace zagent::audit::internal
