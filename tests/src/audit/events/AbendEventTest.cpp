#include "src/audit/events/AbendEvent.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "tests/fakes/AuditRecords.h"

namespace zagent::audit::internal {
namespace {

using fakes::AuditRecords;

AbendEvent Build(const AuditRecords::Fields& fields, std::uint32_t id = 77, std::int64_t seconds = 1'700'000'000) {
  AuditRecords records(id, seconds);
  records.Add(record_type::kAnomAbend, fields);
  return AbendEvent(records);
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

TEST(AbendEventTest, TellsWhoseProcessEnded) {
  const AbendEvent event = Build({{"auid", "1000"},
                                  {"uid", "2"},
                                  {"gid", "0"},
                                  {"pid", "472"},
                                  {"exe", "/usr/local/bin/process-actor"},
                                  {"sig", "11"}});
  EXPECT_EQ(static_cast<int>(event.GetType()), 16);
  EXPECT_EQ(event.GetAction(), "Abort");
  EXPECT_EQ(static_cast<int>(event.GetObjectType()), 3);
  EXPECT_EQ(event.GetId(), 77U);
  EXPECT_EQ(event.GetTimestamp(), 1'700'000'000'000'000'000);
  EXPECT_EQ(event.GetActorProcessId(), 472);
  EXPECT_EQ(event.GetActorAuid(), 1000U);
  EXPECT_EQ(event.GetActorEuid(), 2U);
  EXPECT_TRUE(event.IsSuccessful());
}

TEST(AbendEventTest, KnowsNeitherImageNorKeyNorScript) {
  const AbendEvent event = Build({{"pid", "472"}});
  EXPECT_EQ(event.GetImage(), nullptr);
  EXPECT_EQ(event.GetAuditKey(), "");
  EXPECT_FALSE(event.HasSecondaryImage());
}

TEST(AbendEventTest, IsElevatedWhenALoggedInUserActedAsRoot) {
  EXPECT_TRUE(Build({{"pid", "1"}, {"auid", "1000"}, {"uid", "0"}}).IsElevated());
  EXPECT_FALSE(Build({{"pid", "1"}, {"auid", "1000"}, {"uid", "1000"}}).IsElevated());
  EXPECT_FALSE(Build({{"pid", "1"}, {"auid", "0"}, {"uid", "0"}}).IsElevated());
  EXPECT_FALSE(Build({{"pid", "1"}, {"auid", "4294967295"}, {"uid", "0"}}).IsElevated());
}

TEST(AbendEventTest, IsNoEventWithoutItsProcess) {
  constexpr const char* kText = "Processid missing in Abend event";
  EXPECT_EQ(ErrorOf([] { Build({{"auid", "1000"}}); }), kText);
  EXPECT_EQ(ErrorOf([] { Build({{"pid", "0"}}); }), kText);
  EXPECT_EQ(ErrorOf([] { Build({{"pid", "none"}}); }), kText);
  EXPECT_EQ(ErrorOf([] { Build({{"pid", "99999999999"}}); }), kText);
  AuditRecords nothing;
  EXPECT_EQ(ErrorOf([&] { AbendEvent event(nothing); }), kText);
}

TEST(AbendEventTest, ReadsNoOtherRecord) {
  AuditRecords records;
  records.Add(record_type::kAnomAbend, {{"pid", "472"}, {"uid", "2"}}).Syscall(231, {{"pid", "4711"}});
  AbendEvent event(records);
  EXPECT_EQ(event.GetActorProcessId(), 472);
  const AuditRecords::Fields other = {{"pid", "4711"}};
  event.ParseRecord(record_type::kSyscall, AuditRecords::ViewOf(other));
  EXPECT_EQ(event.GetActorProcessId(), 472);
}

TEST(AbendEventTest, NeedsItsSerialAndItsTime) {
  constexpr const char* kText = "Missing event ID or timestamp";
  EXPECT_EQ(ErrorOf([] { Build({{"pid", "472"}}, 0); }), kText);
  EXPECT_EQ(ErrorOf([] { Build({{"pid", "472"}}, 77, 0); }), kText);
}

TEST(AbendEventTest, RefusesWhatItsRecordDoesNotTell) {
  const AbendEvent event = Build({{"pid", "472"}});
  const std::vector<std::pair<std::string, std::function<void()>>> questions = {
      {"GetActorParentProcessId is not implemented", [&] { static_cast<void>(event.GetActorParentProcessId()); }},
      {"GetActorProcessArguments is not implemented", [&] { static_cast<void>(event.GetActorProcessArguments()); }},
      {"GetSecondaryImage not implemented", [&] { static_cast<void>(event.GetSecondaryImage()); }},
      {"GetCwd is not implemented", [&] { static_cast<void>(event.GetCwd()); }},
      {"GetNetworkAddress is not implemented", [&] { static_cast<void>(event.GetNetworkAddress()); }},
      {"GetNetworkPort is not implemented", [&] { static_cast<void>(event.GetNetworkPort()); }},
  };
  for (const auto& [text, ask] : questions) EXPECT_EQ(ErrorOf(ask), text);
}

TEST(AbendEventTest, Clones) {
  const std::unique_ptr<edr::Event> copy = Build({{"pid", "472"}, {"uid", "2"}, {"auid", "1000"}}).Clone();
  EXPECT_EQ(copy->GetActorProcessId(), 472);
  EXPECT_EQ(copy->GetActorEuid(), 2U);
  EXPECT_EQ(copy->GetActorAuid(), 1000U);
  EXPECT_EQ(copy->GetId(), 77U);
}

}  // namespace
}  // namespace zagent::audit::internal
