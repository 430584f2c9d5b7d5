#include <dlfcn.h>
#include <gtest/gtest.h>
#include <libaudit.h>

#include <cerrno>
#include <cstddef>
#include <string>

#include "src/audit/rules/CreateRules.h"
#include "src/edr/EventRuleEngine.h"
#include "tests/fakes/FakeRule.h"
#include "tests/src/audit/rules/ExclusionsFixture.h"

namespace {

constexpr const char* kPermissions = "permissions";

// The field or call that libaudit refuses, and how often it takes it before. Empty: it refuses nothing on its own.
std::string refused;    // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)
std::size_t taken = 0;  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

bool IsRefused(const std::string& argument) {
  if (refused.empty() || argument != refused) return false;
  if (taken == 0) return true;
  --taken;
  return false;
}

// libaudit's own function, behind the one of this program.
template <typename Function>
Function* Real(const char* name, Function* /*own*/) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// They stand in front of libaudit's for the whole program.
extern "C" int audit_rule_fieldpair_data(audit_rule_data** rule, const char* pair, int flags) {
  if (IsRefused(pair)) return -EINVAL;
  return Real("audit_rule_fieldpair_data", &audit_rule_fieldpair_data)(rule, pair, flags);
}

extern "C" int audit_rule_syscallbyname_data(audit_rule_data* rule, const char* name) {
  if (IsRefused(name)) return -EINVAL;
  return Real("audit_rule_syscallbyname_data", &audit_rule_syscallbyname_data)(rule, name);
}

extern "C" int audit_update_watch_perms(audit_rule_data* rule, int permissions) {
  if (IsRefused(kPermissions)) return -EINVAL;
  return Real("audit_update_watch_perms", &audit_update_watch_perms)(rule, permissions);
}

namespace zagent::audit::internal {
namespace {

using edr::EventType;
using edr::ObjectType;
using fakes::FakeRule;

// A libaudit that takes what it is given but for one argument, as one that was built without a call or a field does.
class LibauditFailuresTest : public ExclusionsFixture {
 protected:
  ~LibauditFailuresTest() override { refused.clear(); }

  static void Refuse(const std::string& argument, std::size_t after = 0) {
    refused = argument;
    taken = after;
  }
  static std::string ErrorOf(ObjectType type, const edr::EventTypes& types, const Coverage& coverage = {}) {
    try {
      static_cast<void>(CreateRules(FakeRule("id", type, "/etc", types), coverage));
    } catch (const edr::RuleEngineException& error) {
      return error.what();
    }
    return "no error";
  }
  // What AddAll tells as an error when this is refused.
  testing::AssertionResult AddAllTells(const std::string& text) {
    exclusions_.AddAll(socket_);
    return log_.Has(Poco::Message::PRIO_ERROR, text) ? testing::AssertionSuccess()
                                                     : testing::AssertionFailure() << log_.All();
  }
  [[nodiscard]] bool HasRule(const std::string& key) const { return !kernel_.RulesWithKey(key).empty(); }
};

TEST_F(LibauditFailuresTest, AnExclusionThatCannotBeBuiltKeepsTheOthersOutOfNothing) {
  Refuse("pid=400");
  EXPECT_TRUE(AddAllTells("Failed to create exclusion rule for pid 400"));
  EXPECT_FALSE(HasRule("ostrel_ignore_rule_host-warden"));
  EXPECT_TRUE(HasRule("ostrel_ignore_rule_ostrel-edr"));
  EXPECT_TRUE(HasRule("ostrel_ignore_thread_events_rule"));
}

TEST_F(LibauditFailuresTest, WithoutTheRuleOfItsExitNoProcessIsSilenced) {
  Refuse("pid=400", 1);
  EXPECT_TRUE(AddAllTells("Failed to create exit rule for pid 400"));
  EXPECT_FALSE(HasRule("ostrel_ignore_rule_host-warden"));
  EXPECT_TRUE(exclusions_.NeedsUpdate(kAgentPid, "/opt/ostrel/bin/host-warden")) << "it is tried again";
}

TEST_F(LibauditFailuresTest, WithoutAKeyNoProcessIsSilenced) {
  Refuse("key=ostrel_exit_rule_host-warden");
  EXPECT_TRUE(AddAllTells("Failed to add key to the exit rule for pid 400"));
  EXPECT_FALSE(HasRule("ostrel_ignore_rule_host-warden"));
  Refuse("key=ostrel_ignore_rule_host-warden");
  EXPECT_TRUE(AddAllTells("Failed to add key to the exclusion rule for pid 400"));
}

TEST_F(LibauditFailuresTest, TellsWhichPartOfTheThreadExclusionCannotBeBuilt) {
  Refuse("arch=b64", 4);  // of the two pairs
  EXPECT_TRUE(AddAllTells("Failed to add arch to the thread exclusion rule"));
  Refuse("clone");
  EXPECT_TRUE(AddAllTells("Failed to add syscall to the thread exclusion rule"));
  Refuse("a0&65536");
  EXPECT_TRUE(AddAllTells("Failed to add flag to the thread exclusion rule"));
  Refuse("key=ostrel_ignore_thread_events_rule");
  EXPECT_TRUE(AddAllTells("Failed to add key to the thread exclusion rule"));
  EXPECT_FALSE(HasRule("ostrel_ignore_thread_events_rule"));
  EXPECT_TRUE(HasRule("ostrel_exit_rule_host-warden"));
}

TEST_F(LibauditFailuresTest, TellsAMessageTypeThatCannotBeExcluded) {
  Refuse("msgtype=EOE");
  EXPECT_TRUE(AddAllTells("Failed to add exclusion rule for message type: EOE"));
  EXPECT_EQ(MessageTypeRules(), 0U);
  EXPECT_TRUE(HasRule("ostrel_ignore_thread_events_rule"));
}

TEST_F(LibauditFailuresTest, TellsWhyAWatchCannotBeBuilt) {
  Refuse(kPermissions);
  EXPECT_EQ(ErrorOf(ObjectType::Directory, {EventType::Write}),
            "AddPermsToRule: Failed to add watch permissions for path /etc");
  Refuse("auid!=4294967295");
  EXPECT_EQ(ErrorOf(ObjectType::Directory, {EventType::Read}),
            "AddPathRules: Failed to limit reading to login sessions for rule id id");
  Refuse("key=id");
  EXPECT_EQ(ErrorOf(ObjectType::Directory, {EventType::Write}), "CreateRules: Failed to add key for rule id id");
  Refuse("a2&0x240");
  EXPECT_EQ(ErrorOf(ObjectType::Directory, {EventType::Write}, {.extended = true}),
            "AddExtendedRules: Failed to build a rule for rule id id");
}

TEST_F(LibauditFailuresTest, TellsWhyARuleOfCallsCannotBeBuilt) {
  Refuse("arch=b64");
  EXPECT_EQ(ErrorOf(ObjectType::Process, {EventType::ProcessStart}), "AddSyscalls: Failed to add 'arch'");
  Refuse("execve");
  EXPECT_EQ(ErrorOf(ObjectType::Process, {EventType::ProcessStart}), "AddSyscalls: Failed to add syscall 'execve'");
  Refuse("bind");
  EXPECT_EQ(ErrorOf(ObjectType::Network, {EventType::Bind}), "AddSyscalls: Failed to add syscall 'bind'");
}

}  // namespace
}  // namespace zagent::audit::internal
