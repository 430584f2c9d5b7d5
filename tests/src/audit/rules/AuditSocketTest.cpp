#include "src/audit/rules/AuditSocket.h"

#include <gtest/gtest.h>
#include <libaudit.h>

#include <cerrno>
#include <string>
#include <vector>

#include "src/edr/EventRuleEngine.h"
#include "tests/fakes/FakeAuditNetlink.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit::internal {
namespace {

AuditRule SyscallRule(const std::string& key) {
  AuditRule rule;
  EXPECT_TRUE(rule.AddField("arch=b64") && rule.AddSyscall("execve") && rule.AddKey(key));
  return rule;
}

class AuditSocketTest : public ::testing::Test {
 protected:
  void AddToKernel(const std::string& key) {
    AuditRule rule = SyscallRule(key);
    ASSERT_EQ(socket_.Add(rule), 0);
  }
  std::vector<std::string> ListedKeys() {
    std::vector<std::string> keys;
    for (const AuditRule& rule : socket_.GetRulesFromAudit()) keys.push_back(rule.GetKey());
    return keys;
  }

  using Keys = std::vector<std::string>;

  fakes::LogCapture log_;
  fakes::FakeAuditNetlink kernel_;
  AuditSocket socket_{kernel_, "Test"};
};

TEST_F(AuditSocketTest, ClosesItsDescriptorOnLeaving) {
  {
    const AuditSocket another(kernel_, "Test");
    EXPECT_EQ(kernel_.OpenDescriptors(), 2U);
  }
  EXPECT_EQ(kernel_.OpenDescriptors(), 1U);
}

TEST_F(AuditSocketTest, SaysWhoCouldNotOpenItAndThrows) {
  kernel_.open_error = EPROTONOSUPPORT;
  try {
    const AuditSocket another(kernel_, "RuleEngine::AddRules: Failed to open audit socket");
    FAIL() << "no exception";
  } catch (const edr::RuleEngineException& error) {
    EXPECT_STREQ(error.what(), "Failed to open audit socket");
  }
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR,
                       "RuleEngine::AddRules: Failed to open audit socket: Protocol not supported (93)"))
      << log_.All();
}

TEST_F(AuditSocketTest, AddsBehindOrInFrontAndDeletesByThePlainList) {
  AuditRule first = SyscallRule("first");
  AuditRule last = SyscallRule("last");
  AuditRule front = SyscallRule("front");
  EXPECT_EQ(socket_.Add(first), 0);
  EXPECT_EQ(socket_.Add(last), 0);
  EXPECT_EQ(socket_.Add(front, AuditSocket::Position::Front), 0);
  EXPECT_EQ(ListedKeys(), (Keys{"front", "first", "last"}));
  EXPECT_EQ(socket_.Delete(front), 0);
  EXPECT_EQ(ListedKeys(), (Keys{"first", "last"}));
  EXPECT_EQ(socket_.Delete(front), ENOENT);
  EXPECT_EQ(socket_.Add(first), EEXIST);
}

TEST_F(AuditSocketTest, ListsNothingFromAnEmptyKernel) {
  EXPECT_TRUE(ListedKeys().empty());
  EXPECT_TRUE(log_.Has("GetRulesFromAudit: Getting rules list from audit subsystem"));
  EXPECT_TRUE(log_.Has("GetRulesFromAudit: Found 0 rules in audit subsystem"));
}

TEST_F(AuditSocketTest, ListsARowForEachRule) {
  AddToKernel("a");
  AddToKernel("b");
  EXPECT_EQ(ListedKeys(), (Keys{"a", "b"}));
  EXPECT_TRUE(log_.Has("GetRuleFromAudit: Found rule 'a' in audit subsystem"));
  EXPECT_TRUE(log_.Has("GetRulesFromAudit: Found 2 rules in audit subsystem"));
}

TEST_F(AuditSocketTest, WaitsForASlowListing) {
  AddToKernel("a");
  kernel_.eagain_before_answers = 5;
  EXPECT_EQ(ListedKeys(), (Keys{"a"}));
  EXPECT_EQ(kernel_.Waits(), 5);
}

TEST_F(AuditSocketTest, PassesOverAcknowledgementsBetweenTheRows) {
  AddToKernel("a");
  AddToKernel("b");
  kernel_.stray_acknowledgements = true;
  EXPECT_EQ(ListedKeys(), (Keys{"a", "b"}));
  EXPECT_FALSE(log_.Has("Invalid audit reply"));
}

TEST_F(AuditSocketTest, GivesAListingUpThatNeverEnds) {
  AddToKernel("a");
  kernel_.leaves_out_done = true;
  EXPECT_EQ(ListedKeys(), (Keys{"a"}));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "GetRuleFromAudit: Audit channel is busy"));
  EXPECT_EQ(kernel_.Waits(), 10);
}

TEST_F(AuditSocketTest, TellsAForeignMessageInTheListing) {
  AddToKernel("a");
  kernel_.foreign_type = AUDIT_USER;
  kernel_.foreign_count = 1;
  EXPECT_EQ(ListedKeys(), (Keys{"a"}));
  EXPECT_EQ(log_.Count("GetRuleFromAudit: Invalid audit reply"), 1);
}

TEST_F(AuditSocketTest, GivesUpOnAFloodOfForeignMessages) {
  AddToKernel("a");
  kernel_.foreign_type = AUDIT_USER;
  kernel_.foreign_count = 100'000;
  EXPECT_TRUE(ListedKeys().empty());
  EXPECT_EQ(log_.Count("GetRuleFromAudit: Invalid audit reply"), 100);
}

TEST_F(AuditSocketTest, StepsOverARowThatLies) {
  AddToKernel("a");
  kernel_.foreign_type = AUDIT_LIST_RULES;  // without a payload
  kernel_.foreign_count = 1;
  EXPECT_EQ(ListedKeys(), (Keys{"a"}));
  EXPECT_TRUE(log_.Has("AuditRule: 'rule' is null or invalid"));
}

TEST_F(AuditSocketTest, TellsThatAListingWasRefused) {
  AddToKernel("a");
  kernel_.refusal = EPERM;
  EXPECT_TRUE(ListedKeys().empty());
  EXPECT_TRUE(log_.Has("GetRuleFromAudit: Failed to get audit reply (Operation not permitted (1))")) << log_.All();
}

TEST_F(AuditSocketTest, TellsThatAReplyCouldNotBeRead) {
  kernel_.reply_error = ENOBUFS;
  EXPECT_TRUE(ListedKeys().empty());
  EXPECT_TRUE(log_.Has("GetRuleFromAudit: Failed to get audit reply (No buffer space available (105))"));
}

TEST_F(AuditSocketTest, SaysWhetherTheListingIsComplete) {
  AddToKernel("first");
  EXPECT_TRUE(socket_.ListRules().is_complete);
  kernel_.foreign_type = AUDIT_USER;
  kernel_.foreign_count = 1;
  const AuditSocket::Listing with_a_gap = socket_.ListRules();
  EXPECT_EQ(with_a_gap.rules.size(), 1U);
  EXPECT_FALSE(with_a_gap.is_complete) << "it may have been a rule's row";
  kernel_.foreign_count = 0;
  kernel_.leaves_out_done = true;
  EXPECT_FALSE(socket_.ListRules().is_complete);
}

TEST_F(AuditSocketTest, TellsThatAListingCouldNotBeRequested) {
  kernel_.request_error = EPERM;
  EXPECT_TRUE(ListedKeys().empty());
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_ERROR,
               "GetRulesFromAudit: Failed to request rules list from audit subsystem: Operation not permitted (1)"));
  kernel_.open_error = EMFILE;
  EXPECT_TRUE(ListedKeys().empty());
  EXPECT_TRUE(log_.Has("GetRulesFromAudit: Failed to open audit socket: Too many open files (24)"));
  EXPECT_EQ(log_.Count("Failed to request rules list from audit subsystem"), 2);
}

TEST_F(AuditSocketTest, LeavesNoRowBehindForALaterCall) {
  AddToKernel("a");
  kernel_.stray_acknowledgements = true;  // the last one comes after the end of the listing
  ListedKeys();
  kernel_.stray_acknowledgements = false;
  const auto reply = std::make_unique<audit_reply>();
  EXPECT_EQ(socket_.GetReply(*reply), EAGAIN);
  EXPECT_EQ(kernel_.OpenDescriptors(), 1U);
}

}  // namespace
}  // namespace zagent::audit::internal
