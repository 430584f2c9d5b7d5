#include "src/audit/events/ExitEvent.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "tests/fakes/AuditRecords.h"

namespace zagent::audit::internal {
namespace {

using fakes::AuditRecords;

// The kernel's record of an exit has no outcome: the call never returns.
ExitEvent Build(unsigned syscall = 231, const AuditRecords::Fields& changes = {}) {
  AuditRecords::Fields fields = AuditRecords::SyscallFields(syscall);
  fields.erase("success");
  fields.erase("exit");
  for (const auto& [name, value] : changes) fields[name] = value;
  AuditRecords records;
  records.Add(record_type::kSyscall, fields);
  return ExitEvent(records);
}

template <typename Call>
std::string ErrorOf(Call call) {
  try {
    call();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "nothing thrown";
}

TEST(ExitEventTest, TellsWhichProcessEnds) {
  const ExitEvent event = Build(231, {{"auid", "1000"}, {"euid", "0"}});
  EXPECT_EQ(static_cast<int>(event.GetType()), 11);
  EXPECT_EQ(event.GetAction(), "Exit");
  EXPECT_EQ(static_cast<int>(event.GetObjectType()), 3);
  EXPECT_EQ(event.GetActorProcessId(), 4711);
  EXPECT_EQ(event.GetActorParentProcessId(), 97);
  EXPECT_EQ(event.GetActorAuid(), 1000U);
  EXPECT_EQ(event.GetActorEuid(), 0U);
  EXPECT_EQ(event.GetImage()->GetPath(), "/bin/ops");
  EXPECT_EQ(event.GetAuditKey(), "rule-w");
  EXPECT_TRUE(event.IsSuccessful());
  EXPECT_TRUE(event.IsElevated());
  EXPECT_FALSE(event.HasSecondaryImage());
}

TEST(ExitEventTest, IsMadeOfItsOwnCallOnly) {
  EXPECT_EQ(ErrorOf([] { Build(60); }), "Invalid syscall for Exit event: 60");
}

TEST(ExitEventTest, RefusesWhatAnEndDoesNotKnow) {
  const ExitEvent event = Build();
  const std::vector<std::pair<std::string, std::function<void()>>> questions = {
      {"GetActorProcessArguments is not implemented", [&] { static_cast<void>(event.GetActorProcessArguments()); }},
      {"GetCwd is not implemented", [&] { static_cast<void>(event.GetCwd()); }},
      {"GetSecondaryImage not implemented", [&] { static_cast<void>(event.GetSecondaryImage()); }},
      {"GetNetworkAddress is not implemented", [&] { static_cast<void>(event.GetNetworkAddress()); }},
      {"GetNetworkPort is not implemented", [&] { static_cast<void>(event.GetNetworkPort()); }},
      {"GetFile not implemented", [&] { static_cast<void>(event.GetFile()); }},
  };
  for (const auto& [text, ask] : questions) EXPECT_EQ(ErrorOf(ask), text);
}

TEST(ExitEventTest, Clones) {
  const ExitEvent event = Build();
  const std::unique_ptr<edr::Event> copy = event.Clone();
  EXPECT_EQ(copy->GetAction(), "Exit");
  EXPECT_EQ(copy->GetActorProcessId(), 4711);
  EXPECT_EQ(copy->GetTimestamp(), event.GetTimestamp());
}

}  // namespace
}  // namespace zagent::audit::internal
