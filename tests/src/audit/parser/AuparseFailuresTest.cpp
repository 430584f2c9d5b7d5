// What the feed does when libauparse fails, which it hardly ever does. The calls stand here in front of the library's
// own, which they pass everything on to but what a test wants to fail.
#include <auparse.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "src/audit/parser/RecordFeed.h"
#include "tests/fakes/AuditLog.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/ScriptedEventFactory.h"
#include "tests/fakes/WhatOf.h"

namespace {

thread_local std::string_view failing_call;

template <typename Function>
Function* Real(Function* /*type*/, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

auparse_state_t* auparse_init(ausource_t source, const void* argument) {
  static const auto real = Real(&auparse_init, "auparse_init");
  return failing_call == "auparse_init" ? nullptr : real(source, argument);
}

int auparse_feed(auparse_state_t* state, const char* data, size_t size) {
  static const auto real = Real(&auparse_feed, "auparse_feed");
  return failing_call == "auparse_feed" ? -1 : real(state, data, size);
}

int auparse_first_record(auparse_state_t* state) {
  static const auto real = Real(&auparse_first_record, "auparse_first_record");
  return failing_call == "auparse_first_record" ? 0 : real(state);
}

}  // extern "C"

namespace zagent::audit::internal {
namespace {

using fakes::AuditLog;

class AuparseFailuresTest : public testing::Test {
 protected:
  ~AuparseFailuresTest() override { failing_call = {}; }
  // An event whose call is more than plain words: auparse reads it.
  [[nodiscard]] std::string Event(unsigned serial) const {
    return fakes::Replaced(log_.Event(serial), " exe=\"", " exe=\"a b\" was=\"");
  }
  void Feed(const std::string& text) { feed_.Feed(reinterpret_cast<const unsigned char*>(text.data()), text.size()); }

  fakes::LogCapture lines_;
  AuditLog log_;
  fakes::ScriptedEventFactory factory_;
  IntakeCounters counters_;
  RecordFeed feed_{factory_.Get(), counters_};
};

TEST_F(AuparseFailuresTest, AnEventWithoutRecordsIsCountedAndTheNextOneIsBuilt) {
  failing_call = "auparse_first_record";
  Feed(Event(AuditLog::kMkdir));
  feed_.Flush();
  EXPECT_TRUE(lines_.Has(Poco::Message::PRIO_INFORMATION, "Failed to fetch first record from event")) << lines_.All();
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::NotBuilt), 1U);
  EXPECT_TRUE(feed_.TakeEvents().empty());
  failing_call = {};
  Feed(Event(AuditLog::kRmdir));
  feed_.Flush();
  EXPECT_EQ(feed_.TakeEvents().size(), 1U);
}

TEST_F(AuparseFailuresTest, RecordsThatAreNotTakenAreAFailureOfTheStage) {
  failing_call = "auparse_feed";
  EXPECT_EQ(fakes::WhatOf<std::runtime_error>([this] { Feed(Event(AuditLog::kMkdir)); }), "Failed to feed to auparse");
}

TEST_F(AuparseFailuresTest, AtAFlushTheyAreCounted) {
  for (const unsigned serial : {AuditLog::kMkdir, AuditLog::kRmdir}) {
    const std::string event = Event(serial);
    Feed(event.substr(0, event.find("type=PROCTITLE")));
  }
  failing_call = "auparse_feed";
  feed_.Flush();
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::NotBuilt), 2U);
  EXPECT_TRUE(feed_.TakeEvents().empty());
}

TEST_F(AuparseFailuresTest, APlainEventNeedsNoLibrary) {
  failing_call = "auparse_feed";
  Feed(log_.Event(AuditLog::kMkdir));
  EXPECT_EQ(feed_.TakeEvents().size(), 1U);
}

TEST_F(AuparseFailuresTest, WithoutALibraryThereIsNoFeed) {
  failing_call = "auparse_init";
  EXPECT_EQ(fakes::WhatOf<std::runtime_error>([this] { const RecordFeed feed(factory_.Get(), counters_); }),
            "Failed to initialize auparse");
}

}  // namespace
}  // namespace zagent::audit::internal
