#include "src/audit/events/Event.h"

#include <gtest/gtest.h>

#include <functional>

#include "tests/fakes/AuditRecords.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit::internal {
namespace {

// An event that answers only what it must.
class BareEvent final : public Event {
 public:
  BareEvent() = default;
  explicit BareEvent(RecordSource& source) { Feed(source); }

  [[nodiscard]] edr::EventType GetType() const override { return edr::EventType::AbnormalEnd; }
  [[nodiscard]] std::string GetAction() const override { return "Abort"; }
  [[nodiscard]] edr::ObjectType GetObjectType() const override { return edr::ObjectType::Process; }
  [[nodiscard]] const std::string& GetAuditKey() const override { return key_; }
  void ParseRecord(int type, const edr::RecordFields& fields) override { parsed.emplace_back(type, fields.size()); }

  std::vector<std::pair<int, std::size_t>> parsed;

 private:
  std::string key_;
};

template <typename Call>
std::string ErrorOf(Call call) {
  try {
    call();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "nothing thrown";
}

TEST(EventTest, RefusesEveryQuestionThatItCannotAnswerInTheKnownWords) {
  BareEvent event;
  const Event& asked = event;
  const std::vector<std::pair<std::string, std::function<void()>>> questions = {
      {"Clone is not implemented", [&] { static_cast<void>(asked.Clone()); }},
      {"GetActorEuid is not implemented", [&] { static_cast<void>(asked.GetActorEuid()); }},
      {"GetActorProcessArguments is not implemented", [&] { static_cast<void>(asked.GetActorProcessArguments()); }},
      {"GetActorProcessId is not implemented", [&] { static_cast<void>(asked.GetActorProcessId()); }},
      {"GetActorParentProcessId is not implemented", [&] { static_cast<void>(asked.GetActorParentProcessId()); }},
      {"GetActorUserName is not implemented", [&] { static_cast<void>(asked.GetActorUserName()); }},
      {"GetActorUserId is not implemented", [&] { static_cast<void>(asked.GetActorUserId()); }},
      {"GetActorLoginName is not implemented", [&] { static_cast<void>(asked.GetActorLoginName()); }},
      {"GetActorAuid is not implemented", [&] { static_cast<void>(asked.GetActorAuid()); }},
      {"GetCommandLine not implemented", [&] { static_cast<void>(asked.GetCommandLine()); }},
      {"GetFile not implemented", [&] { static_cast<void>(asked.GetFile()); }},
      {"GetFileAccessTime is not implemented", [&] { static_cast<void>(asked.GetFileAccessTime()); }},
      {"GetFileChangeTime is not implemented", [&] { static_cast<void>(asked.GetFileChangeTime()); }},
      {"GetFileContent is not implemented", [&] { static_cast<void>(asked.GetFileContent()); }},
      {"GetFileContentHash is not implemented",
       [&] { static_cast<void>(asked.GetFileContentHash(edr::ContentHash::Md5)); }},
      {"GetFileModificationTime is not implemented", [&] { static_cast<void>(asked.GetFileModificationTime()); }},
      {"GetFileSize is not implemented", [&] { static_cast<void>(asked.GetFileSize()); }},
      {"GetFileType is not implemented", [&] { static_cast<void>(asked.GetFileType()); }},
      {"GetFileTypeDesc is not implemented", [&] { static_cast<void>(asked.GetFileTypeDesc()); }},
      {"GetImage not implemented", [&] { static_cast<void>(asked.GetImage()); }},
      {"GetNewFile not implemented", [&] { static_cast<void>(asked.GetNewFile()); }},
      {"GetParentInode is not implemented", [&] { static_cast<void>(asked.GetParentInode()); }},
      {"GetParentDeviceID is not implemented", [&] { static_cast<void>(asked.GetParentDeviceID()); }},
      {"GetCwd is not implemented", [&] { static_cast<void>(asked.GetCwd()); }},
      {"GetSecondaryImage not implemented", [&] { static_cast<void>(asked.GetSecondaryImage()); }},
      {"GetNetworkAddress is not implemented", [&] { static_cast<void>(asked.GetNetworkAddress()); }},
      {"GetNetworkPort is not implemented", [&] { static_cast<void>(asked.GetNetworkPort()); }},
      {"GetFileReadStatus is not implemented", [&] { static_cast<void>(asked.GetFileReadStatus()); }},
      {"IsSymlink is not implemented", [&] { static_cast<void>(asked.IsSymlink()); }},
      {"IsElevated is not implemented", [&] { static_cast<void>(asked.IsElevated()); }},
      {"Refresh is not implemented", [&] { event.Refresh(); }},
      {"UpdateActorProcessId is not implemented", [&] { event.UpdateActorProcessId(1); }},
  };
  for (const auto& [text, ask] : questions) EXPECT_EQ(ErrorOf(ask), text);
  EXPECT_FALSE(event.HasSecondaryImage());
  EXPECT_TRUE(event.IsSuccessful());
}

TEST(EventTest, FeedsItselfEachRecordInOrderAndTakesIdAndTime) {
  const fakes::LogCapture log;
  fakes::AuditRecords records(42, 1'700'000'123);
  records.Add(record_type::kAnomAbend, {{"sig", "6"}})
      .Add(record_type::kProctitle, {{"proctitle", "x"}, {"type", "y"}});
  const BareEvent event(records);
  EXPECT_EQ(event.parsed, (std::vector<std::pair<int, std::size_t>>{{1701, 1}, {1327, 2}}));
  EXPECT_EQ(event.GetId(), 42U);
  EXPECT_EQ(event.GetTimestamp(), 1'700'000'123'000'000'000);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Event Action: Abort"));
}

TEST(EventTest, IsNoEventWithoutAnIdOrATime) {
  fakes::AuditRecords no_id(0, 1'700'000'000);
  EXPECT_EQ(ErrorOf([&] { BareEvent event(no_id); }), "Missing event ID or timestamp");
  fakes::AuditRecords no_time(1, 0);
  EXPECT_EQ(ErrorOf([&] { BareEvent event(no_time); }), "Missing event ID or timestamp");
}

TEST(ResolvePathTest, PutsAChildBelowItsParentAndTheWorkingFolder) {
  EXPECT_EQ(Event::ResolvePath("/srv/w", "", "g"), "/srv/w/g");
  EXPECT_EQ(Event::ResolvePath("/srv/w", "sub/", "f"), "/srv/w/sub/f");
  EXPECT_EQ(Event::ResolvePath("/srv/w", "/tmp/", "out"), "/tmp/out");
  EXPECT_EQ(Event::ResolvePath("", "/tmp", "out"), "/tmp/out");
  EXPECT_EQ(Event::ResolvePath("/srv/w", "sub/", "/etc/passwd"), "/etc/passwd");
  EXPECT_EQ(Event::ResolvePath("", "", "/etc/passwd"), "/etc/passwd");
}

TEST(ResolvePathTest, TakesOutDotsAndDoubledSeparators) {
  EXPECT_EQ(Event::ResolvePath("/srv/w", "", "sub/../sub//./f"), "/srv/w/sub/f");
  EXPECT_EQ(Event::ResolvePath("/srv/w", "../", "x"), "/srv/x");
  EXPECT_EQ(Event::ResolvePath("/", "", "../../etc/passwd"), "/etc/passwd");
}

TEST(ResolvePathTest, UnderstandsALastDotOrTwo) {
  EXPECT_EQ(Event::ResolvePath("/srv/w", "", ".."), "/srv");
  EXPECT_EQ(Event::ResolvePath("/srv/w", "", "."), "/srv/w");
  EXPECT_EQ(Event::ResolvePath("/srv/w", "", "/a/b/.."), "/a");
  EXPECT_EQ(Event::ResolvePath("/srv/w", "", "/a/.."), "/");
  EXPECT_EQ(Event::ResolvePath("/srv/w", "", "/a/..."), "/a/...");
}

TEST(ResolvePathTest, SaysWhatIsMissing) {
  EXPECT_EQ(ErrorOf([] { static_cast<void>(Event::ResolvePath("/w", "/p", "")); }), "Missing path for child");
  EXPECT_EQ(ErrorOf([] { static_cast<void>(Event::ResolvePath("", "p", "f")); }), "Missing CWD with relative paths");
  EXPECT_EQ(ErrorOf([] { static_cast<void>(Event::ResolvePath("", "", "f")); }), "Missing CWD with relative path");
}

}  // namespace
}  // namespace zagent::audit::internal
