#include "src/ioc/process/EventSize.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>

#include "src/audit/events/IntakeCounters.h"
#include "src/audit/parser/EventFactory.h"
#include "src/audit/parser/RecordFeed.h"
#include "src/edr/process/PseudoRunningEvent.h"
#include "src/edr/process/PseudoTerminateEvent.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeProcessInfo.h"
#include "tests/fakes/Heap.h"
#include "tests/fakes/TestData.h"

namespace zagent::ioc::internal {
namespace {

using audit::internal::Events;

// The events of a real kernel's records, all of whose files are gone.
Events RecordedEvents() {
  Events events;
  for (const char* log : {"audit-operations-6.1.log", "audit-processes-6.1.log", "audit-extended-6.1.log"}) {
    audit::IntakeCounters counters;
    audit::internal::FileContext context;
    context.extended_coverage = true;
    audit::internal::RecordFeed feed(audit::internal::MakeEventFactory(std::move(context)), counters);
    std::ifstream in(fakes::TestData(log), std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(in), {}};
    feed.Feed(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    feed.Flush();
    for (auto& event : feed.TakeEvents()) events.push_back(std::move(event));
  }
  return events;
}

// At most so many of each action.
Events Samples(std::size_t count) {
  Events samples;
  std::map<std::string, std::size_t> taken;
  for (auto& event : RecordedEvents()) {
    if (taken[event->GetAction()]++ < count) samples.push_back(std::move(event));
  }
  fakes::FakeProcessInfo process(10, 1, "/usr/lib/systemd/systemd-journald");
  process.arguments = {"/usr/lib/systemd/systemd-journald", "--with-a-long-argument-or-two"};
  process.cwd = "/var/lib/somewhere/else";
  samples.push_back(std::make_unique<edr::PseudoRunningEvent>(process));
  samples.push_back(std::make_unique<edr::PseudoTerminateEvent>(process));
  return samples;
}

struct Sizes {
  double estimated = 0;
  double real = 0;
};

// Of one of many copies.
Sizes Measure(const edr::Event& event) {
  constexpr std::size_t kCopies = 200;
  Events copies;
  copies.reserve(kCopies);
  Sizes sizes;
  const std::size_t before = fakes::HeapInUse();
  for (std::size_t i = 0; i < kCopies; ++i) {
    copies.push_back(event.Clone());
    sizes.estimated += static_cast<double>(EstimateHeap(*copies.back())) / kCopies;
  }
  sizes.real = static_cast<double>(fakes::HeapInUse() - before) / kCopies;
  return sizes;
}

TEST(EventSizeTest, TheEstimateIsTheRealHeapButForAFifth) {
  std::map<std::string, int> seen;
  for (const auto& event : Samples(12)) {
    const Sizes sizes = Measure(*event);
    EXPECT_GT(sizes.estimated, sizeof(edr::PartialEvent)) << event->GetAction() << " " << event->GetId();
    ++seen[event->GetAction()];
    if (!fakes::kKnowsItsHeap) continue;
    EXPECT_NEAR(sizes.estimated, sizes.real, sizes.real / 5) << event->GetAction() << " " << event->GetId();
  }
  EXPECT_GE(seen.size(), 10U);  // of all classes
}

TEST(EventSizeTest, EveryTextOfAnEventCounts) {
  const std::string text(10'000, 'x');
  const auto size = [](const fakes::FakeEvent& event) { return EstimateHeap(*event.Clone()); };
  fakes::FakeEvent plain(edr::EventType::Rename, "Rename", "/a");
  plain.new_file = common::ImageInfo("/b");
  const std::size_t small = size(plain);
  EXPECT_GE(small, sizeof(fakes::FakeEvent));
  EXPECT_LT(small, sizeof(fakes::FakeEvent) + 500);
  for (const auto& set : std::vector<void (*)(fakes::FakeEvent&, const std::string&)>{
           [](fakes::FakeEvent&event, const std::string&long_text) { event.command_line = long_text; },
           [](fakes::FakeEvent&event, const std::string&long_text) { event.audit_key = long_text; },
           [](fakes::FakeEvent&event, const std::string&long_text) { event.file->SetPath(long_text); },
           [](fakes::FakeEvent&event, const std::string&long_text) { event.new_file->SetPath(long_text); },
           [](fakes::FakeEvent&event, const std::string&long_text) { event.image->SetPath(long_text); }}) {
    fakes::FakeEvent event = plain;
    set(event, text);
    EXPECT_GE(size(event), small + text.size());
  }
}

TEST(EventSizeTest, EveryTextOfAStartCounts) {
  const std::string text(10'000, 'x');
  fakes::FakeEvent start;
  start.type = edr::EventType::ProcessStart;
  start.object_type = edr::ObjectType::Process;
  const std::size_t small = EstimateHeap(*start.Clone());
  start.arguments = {"a", text, "b"};
  start.cwd = text;
  start.secondary_image = common::ImageInfo(text);
  EXPECT_GE(EstimateHeap(*start.Clone()), small + 3 * text.size());
}

TEST(EventSizeTest, TheAddressOfASocketCounts) {
  fakes::FakeEvent connect;
  connect.type = edr::EventType::Connect;
  connect.object_type = edr::ObjectType::Network;
  const std::size_t small = EstimateHeap(*connect.Clone());
  connect.network_address = std::string(10'000, 'x');
  EXPECT_GE(EstimateHeap(*connect.Clone()), small + 10'000);
}

}  // namespace
}  // namespace zagent::ioc::internal
