#include "src/audit/routing/EventRouter.h"

#include <utility>

#include "common/src/util/Log.h"
#include "src/audit/routing/EventGuard.h"
#include "src/edr/process/EventBytes.h"

namespace zagent::audit::internal {
namespace {

using edr::ObjectType;
using Reason = IntakeCounters::Reason;

bool IsFileObject(const edr::Event& event) {
  return event.GetObjectType() == ObjectType::File || event.GetObjectType() == ObjectType::Directory;
}

}  // namespace

EventRouter::EventRouter(common::util::Clock& clock, std::size_t max_resting, IntakeCounters& counters,
                         ProcessModel& processes, Stops stops)
    : clock_(clock),
      counters_(counters),
      processes_(processes),
      stops_(std::move(stops)),
      file_events_(clock, {.max_events = max_resting}) {}

void EventRouter::Process(std::unique_ptr<edr::Event>&& event) {
  const std::uint32_t id = event->GetId();
  ZLOG_DEBUG("RuleEngine::ProcessEvent: Procesing event with ID " << id);
  DeliverDue();
  GuardEvent(id, counters_, Reason::NotProcessed, [&] {
    // An access to a file that failed is worth a report, any other failure is not.
    if (!event->IsSuccessful() && !IsFileObject(*event)) {
      ZLOG_TRACE("RuleEngine::ProcessEvent: Dropping unsuccessful " << event->GetAction() << " event with ID " << id);
      return;
    }
    Handle(std::move(event), EventSource::Pipeline);
  });
  CleanProcesses();
}

bool EventRouter::OnIdle() {
  const bool more_is_due = DeliverDue();
  CleanProcesses();
  return more_is_due;
}

bool EventRouter::DeliverDue() {
  for (std::unique_ptr<edr::Event>& event : file_events_.Expire(1)) DeliverCached(std::move(event));
  return file_events_.HasDue();
}

void EventRouter::DeliverRest(std::chrono::nanoseconds time) {
  const common::util::Clock::SteadyTime end =
      clock_.SteadyNow() + std::chrono::duration_cast<common::util::Clock::SteadyTime::duration>(time);
  while (file_events_.GetSize() != 0 && clock_.SteadyNow() < end) DeliverCached(file_events_.TakeOldest());
  const std::size_t left = file_events_.GetSize();
  if (left == 0) return;
  ZLOG_WARNING("RuleEngine: No time left to deliver " << left << " file events that still rested");
  counters_.Add(Reason::LeftAtStop, left);
  file_events_.Clear();
  twins_.clear();
}

void EventRouter::DeliverCached(std::unique_ptr<edr::Event> event) {
  const std::uint32_t id = event->GetId();
  const auto refresh = [&](edr::Event& rested) {
    return GuardEvent(id, counters_, Reason::FileReplaced, [&] { rested.Refresh(); });
  };
  std::unique_ptr<edr::Event> twin = TakeTwin(event.get());
  if (twin && !refresh(*twin)) twin.reset();
  // What is only to be found at one of the two paths is told as being there.
  if (!refresh(*event)) event = std::move(twin);
  if (!event) return;
  const edr::Event* key = event.get();
  if (twin) twins_[key] = std::move(twin);
  GuardEvent(id, counters_, Reason::NotProcessed, [&] { Handle(std::move(event), EventSource::FileCache); });
  twins_.erase(key);
}

std::unique_ptr<edr::Event> EventRouter::TakeTwin(const edr::Event* event) {
  const auto found = twins_.find(event);
  if (found == twins_.end()) return nullptr;
  std::unique_ptr<edr::Event> twin = std::move(found->second);
  twins_.erase(found);
  return twin;
}

void EventRouter::FlushFileEvents(std::int32_t pid) {
  for (std::unique_ptr<edr::Event>& event : file_events_.Flush(pid)) DeliverCached(std::move(event));
}

void EventRouter::Handle(std::unique_ptr<edr::Event>&& event, EventSource source) {
  if (WantsProcesses()) {
    processes_.Handle(std::move(event), source, *this);
  } else {
    PassOn(std::move(event), source);
  }
}

void EventRouter::PassOn(std::unique_ptr<edr::Event>&& event, EventSource source) {
  if (!stops_.should_process(*event, source)) return;
  if (source == EventSource::FileCache) {
    const std::unique_ptr<edr::Event> twin = TakeTwin(event.get());
    if (!twin && stops_.hand_over) return stops_.hand_over(std::move(event));
    if (twin) twin->UpdateActorProcessId(event->GetActorProcessId());  // it may have been a thread's until now
    stops_.deliver(*event, twin.get());
    return;
  }
  std::unique_ptr<edr::Event> twin = IsFileObject(*event) ? stops_.find_twin(*event) : nullptr;
  if (event->GetObjectType() != ObjectType::File) {
    stops_.deliver(*event, twin.get());
    return;
  }
  const std::uint64_t twin_bytes = twin ? edr::EstimateBytes(*twin) : 0;
  if (twin) twins_[event.get()] = std::move(twin);
  file_events_.Add(std::move(event), twin_bytes);
}

// The kernel's exclusions end with a process of the program's own family, which the tree need not know.
void EventRouter::PassOver(const edr::Event& event) {
  (void)stops_.should_process(event, EventSource::Pipeline);
}

void EventRouter::CleanProcesses() {
  GuardEvent(0, counters_, Reason::NotProcessed, [this] {
    if (WantsProcesses()) processes_.Clean(*this);
  });
}

bool EventRouter::WantsProcesses() {
  const bool wants = stops_.has_process_rules();
  if (wants && !wanted_processes_) processes_.Resume();
  wanted_processes_ = wants;
  return wants;
}

}  // namespace zagent::audit::internal
