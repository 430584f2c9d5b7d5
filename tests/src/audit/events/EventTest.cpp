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
  explicit BareEvent(RecordSource& source) { Feed(source, KindsOf(record_type::kAnomAbend, record_type::kProctitle)); }

  [[nodiscard]] edr::EventType GetType() const override { return edr::EventType::AbnormalEnd; }
  [[nodiscard]] std::string GetAction() const override { return "Abort"; }
  [[nodiscard]] edr::ObjectType GetObjectType() const override { return edr::ObjectType::Process; }
  [[nodiscard]] const std::string& GetAuditKey() const override { return key_; }
  void ParseRecord(int type, const edr::RecordFields& fields) override {
    parsed.emplace_back(type, fields.Find(edr::RecordField::Proctitle));
  }

  std::vector<std::pair<int, std::string>> parsed;

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

TEST(EventTest, FeedsItselfEachWantedRecordInOrderAndTakesIdAndTime) {
  const fakes::LogCapture log;
  fakes::AuditRecords records(42, 1'700'000'123);
  records.Add(record_type::kAnomAbend, {{"sig", "6"}})
      .Add(record_type::kCwd, {{"cwd", "/"}})
      .Add(record_type::kProctitle, {{"proctitle", "x"}});
  const BareEvent event(records);
  EXPECT_EQ(event.parsed, (std::vector<std::pair<int, std::string>>{{1701, ""}, {1327, "x"}}));
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
