#include "src/audit/events/SyscallEvent.h"

#include <gtest/gtest.h>

#include "tests/fakes/AuditRecords.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit::internal {
namespace {

using fakes::AuditRecords;

class PlainSyscall final : public SyscallEvent {
 public:
  explicit PlainSyscall(RecordSource& source) { Feed(source, KindOf(record_type::kSyscall)); }
  [[nodiscard]] std::unique_ptr<edr::Event> Clone() const override {
    return std::unique_ptr<edr::Event>(new PlainSyscall(*this));
  }
  [[nodiscard]] edr::EventType GetType() const override { return edr::EventType::Connect; }
  [[nodiscard]] std::string GetAction() const override { return "Connect"; }
  [[nodiscard]] edr::ObjectType GetObjectType() const override { return edr::ObjectType::Network; }

  using SyscallEvent::AnnouncedItems;
  using SyscallEvent::Argument;
  using SyscallEvent::ExitValue;
  using SyscallEvent::HasArgument;
  using SyscallEvent::Syscall;

 private:
  PlainSyscall(const PlainSyscall&) = default;
};

class SyscallEventTest : public ::testing::Test {
 protected:
  static PlainSyscall Build(const AuditRecords::Fields& changes) {
    AuditRecords records;
    records.Syscall(42, changes);
    return PlainSyscall(records);
  }
  static PlainSyscall BuildWithout(const std::string& field) {
    AuditRecords::Fields fields = AuditRecords::SyscallFields(42);
    fields.erase(field);
    AuditRecords records;
    records.Add(record_type::kSyscall, fields);
    return PlainSyscall(records);
  }
  template <typename Call>
  static std::string ErrorOf(Call call) {
    try {
      call();
    } catch (const edr::EventException& error) {
      return error.what();
    }
    return "no EventException";
  }

  fakes::LogCapture log_;
};

TEST_F(SyscallEventTest, TellsWhoDidItAndWithWhat) {
  const PlainSyscall event = Build({{"ppid", "97"},
                                    {"pid", "103"},
                                    {"uid", "1"},
                                    {"auid", "0"},
                                    {"euid", "2"},
                                    {"exit", "-13"},
                                    {"items", "3"},
                                    {"exe", "/bin/ops"},
                                    {"key", "\"readrule\""}});
  EXPECT_EQ(event.GetActorParentProcessId(), 97);
  EXPECT_EQ(event.GetActorProcessId(), 103);
  EXPECT_EQ(event.GetActorUserId(), 1U);
  EXPECT_EQ(event.GetActorAuid(), 0U);
  EXPECT_EQ(event.GetActorEuid(), 2U);
  EXPECT_EQ(event.GetActorUserName(), "daemon");
  EXPECT_EQ(event.GetActorLoginName(), "root");
  EXPECT_EQ(event.GetImage()->GetPath(), "/bin/ops");
  EXPECT_EQ(event.GetImage()->GetInode(), 18446744073709551615U);
  EXPECT_EQ(event.GetAuditKey(), "readrule");
  EXPECT_EQ(event.Syscall(), 42U);
  EXPECT_EQ(event.AnnouncedItems(), 3U);
  EXPECT_EQ(event.ExitValue(), -13);
}

TEST_F(SyscallEventTest, CountsACallWithoutAnOutcomeAsSuccessful) {
  EXPECT_TRUE(BuildWithout("success").IsSuccessful());
  EXPECT_TRUE(Build({{"success", "yes"}}).IsSuccessful());
  EXPECT_FALSE(Build({{"success", "no"}}).IsSuccessful());
  EXPECT_FALSE(Build({{"success", "maybe"}}).IsSuccessful());
}

TEST_F(SyscallEventTest, CallsAnActorWithoutALoginSystemUserAndNeverElevated) {
  const PlainSyscall event = Build({{"auid", "4294967295"}, {"euid", "0"}});
  EXPECT_EQ(event.GetActorLoginName(), "system-user");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Setting Audit username for Auid: 4294967295 to system-user"));
  EXPECT_FALSE(event.IsElevated());
  EXPECT_FALSE(Build({{"auid", "4294967295"}, {"euid", "1000"}}).IsElevated());
}

TEST_F(SyscallEventTest, IsElevatedWhenALoggedInUserActsAsRoot) {
  EXPECT_TRUE(Build({{"auid", "1000"}, {"euid", "0"}}).IsElevated());
  EXPECT_FALSE(Build({{"auid", "0"}, {"euid", "0"}}).IsElevated());
  EXPECT_FALSE(Build({{"auid", "1000"}, {"euid", "1000"}}).IsElevated());
}

TEST_F(SyscallEventTest, KeepsTheWordOfAMissingKey) {
  EXPECT_EQ(Build({{"key", "(null)"}}).GetAuditKey(), "(null)");
}

TEST_F(SyscallEventTest, ReadsFourHexadecimalArgumentsAndNeverAFifth) {
  const PlainSyscall event =
      Build({{"a0", "ffffff9c"}, {"a1", "7ffe3a74b430"}, {"a2", "41"}, {"a3", "1b6"}, {"a4", "5"}});
  EXPECT_EQ(event.Argument(0), 0xffffff9cU);
  EXPECT_EQ(event.Argument(1), 0x7ffe3a74b430U);
  EXPECT_EQ(event.Argument(2), 0x41U);
  EXPECT_EQ(event.Argument(3), 0x1b6U);
  EXPECT_FALSE(event.HasArgument(4));
  EXPECT_THROW(static_cast<void>(event.Argument(4)), std::out_of_range);
}

TEST_F(SyscallEventTest, IsNoEventWithoutAProgram) {
  constexpr const char* kText = "SyscallRecordException: Failed to find process name in syscall record";
  EXPECT_EQ(ErrorOf([] { Build({{"exe", "(null)"}}); }), kText);
  EXPECT_EQ(ErrorOf([] { BuildWithout("exe"); }), kText);
}

TEST_F(SyscallEventTest, RefusesNumbersThatDoNotRead) {
  const auto text = [](const std::string& value) {
    return "SyscallRecordException: Cannot convert from string 'value': " + value;
  };
  EXPECT_EQ(ErrorOf([] { Build({{"pid", "12x"}}); }), text("12x"));
  EXPECT_EQ(ErrorOf([] { Build({{"ppid", ""}}); }), text(""));
  EXPECT_EQ(ErrorOf([] { Build({{"pid", "99999999999"}}); }), text("99999999999"));
  EXPECT_EQ(ErrorOf([] { Build({{"uid", "-1"}}); }), text("-1"));
  EXPECT_EQ(ErrorOf([] { Build({{"euid", "4294967296"}}); }), text("4294967296"));
  EXPECT_EQ(ErrorOf([] { Build({{"items", "99999999999999999999999"}}); }), text("99999999999999999999999"));
  EXPECT_EQ(ErrorOf([] { Build({{"a1", "zz"}}); }), text("zz"));
}

TEST_F(SyscallEventTest, FailsForAMissingRequiredField) {
  for (const char* field : {"ppid", "pid", "uid", "auid", "euid", "items", "syscall", "key"}) {
    EXPECT_THROW(BuildWithout(field), std::out_of_range) << field;
  }
  EXPECT_EQ(BuildWithout("exit").ExitValue(), 0);
  EXPECT_EQ(BuildWithout("a3").Argument(2), 0U);
}

TEST_F(SyscallEventTest, NeedsExactlyOneSyscallRecord) {
  AuditRecords none;
  none.Add(record_type::kProctitle, {{"proctitle", "x"}});
  EXPECT_EQ(ErrorOf([&] { PlainSyscall event(none); }), "Missing SYSCALL record for event");
  AuditRecords empty;
  EXPECT_EQ(ErrorOf([&] { PlainSyscall event(empty); }), "Missing SYSCALL record for event");
  AuditRecords two;
  two.Syscall(42).Syscall(42);
  EXPECT_EQ(ErrorOf([&] { PlainSyscall event(two); }), "Multiple syscall records found in event");
}

TEST_F(SyscallEventTest, LooksAnUnknownUserUpOnceAnEventAndAnswersItsDigits) {
  const PlainSyscall event = Build({{"uid", "3987654321"}});
  EXPECT_FALSE(log_.Has("User name not found"));
  EXPECT_EQ(event.GetActorUserName(), "3987654321");
  EXPECT_EQ(event.GetActorUserName(), "3987654321");
  EXPECT_EQ(log_.Count("User name not found for uid 3987654321"), 1);
}

TEST_F(SyscallEventTest, ClonesAsAValidatedEventThatLooksNamesUpAnew) {
  PlainSyscall event = Build({{"uid", "3987654321"}, {"success", "no"}});
  event.UpdateActorProcessId(5);
  EXPECT_EQ(event.GetActorUserName(), "3987654321");
  const std::unique_ptr<edr::Event> copy = event.Clone();
  EXPECT_EQ(copy->GetId(), event.GetId());
  EXPECT_EQ(copy->GetTimestamp(), event.GetTimestamp());
  EXPECT_EQ(copy->GetActorProcessId(), 5);
  EXPECT_EQ(copy->GetAuditKey(), "rule-w");
  EXPECT_FALSE(copy->IsSuccessful());
  EXPECT_EQ(copy->GetImage()->GetPath(), "/bin/ops");
  EXPECT_NE(copy->GetImage(), event.GetImage());
  EXPECT_NO_THROW(copy->Validate());
  EXPECT_EQ(copy->GetActorUserName(), "3987654321");
  EXPECT_EQ(log_.Count("User name not found for uid 3987654321"), 2);
}

TEST_F(SyscallEventTest, TakesTheProcessIdThatATreeCorrects) {
  PlainSyscall event = Build({{"pid", "106"}});
  event.UpdateActorProcessId(103);
  EXPECT_EQ(event.GetActorProcessId(), 103);
}

}  // namespace
}  // namespace zagent::audit::internal
