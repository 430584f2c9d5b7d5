#include "src/audit/routing/EventRouter.h"

#include <exception>
#include <utility>

#include "common/src/util/Log.h"
#include "src/edr/EventRuleEngine.h"
#include "src/edr/process/StatHelper.h"

namespace zagent::audit::internal {
namespace {

using edr::ObjectType;
using Reason = IntakeCounters::Reason;

bool IsFileObject(const edr::Event& event) {
  return event.GetObjectType() == ObjectType::File || event.GetObjectType() == ObjectType::Directory;
}

// Runs one event's step and lets nothing out of it; false when it failed. What belongs to an event's life (its file is
// gone or replaced, it cannot be judged) is of interest to developers only, and counts as `expected_loss`.
template <typename Step>
bool Guard(std::uint32_t event_id, IntakeCounters& counters, Reason expected_loss, const Step& step) {
  const auto lose_as_expected = [&](const std::exception& error) {
    counters.Add(expected_loss);
    ZLOG_DEBUG("Failed to process event with ID " << event_id << ": " << error.what());
  };
  const auto lose = [&](const char* cause) {
    counters.Add(Reason::NotProcessed);
    ZLOG_ERROR("Failed to process event with ID " << event_id << ": " << cause);
  };
  try {
    step();
    return true;
  } catch (const edr::RuleEngineException& error) {
    lose_as_expected(error);
  } catch (const edr::EventException& error) {
    lose_as_expected(error);
  } catch (const common::StatHelperException& error) {
    lose_as_expected(error);
  } catch (const std::exception& error) {
    lose(error.what());
  } catch (...) {
    lose("unknown failure");
  }
  return false;
}

}  // namespace

EventRouter::EventRouter(common::util::Clock& clock, std::size_t max_resting, IntakeCounters& counters,
                         ShouldProcess should_process, Deliver deliver)
    : clock_(clock),
      counters_(counters),
      should_process_(std::move(should_process)),
      deliver_(std::move(deliver)),
      file_events_(clock, {.max_events = max_resting}) {}

void EventRouter::Process(std::unique_ptr<edr::Event> event) {
  const std::uint32_t id = event->GetId();
  ZLOG_DEBUG("RuleEngine::ProcessEvent: Procesing event with ID " << id);
  DeliverDue();
  Guard(id, counters_, Reason::NotProcessed, [&] {
    // An access to a file that failed is worth a report, any other failure is not.
    if (!event->IsSuccessful() && !IsFileObject(*event)) {
      ZLOG_TRACE("RuleEngine::ProcessEvent: Dropping unsuccessful " << event->GetAction() << " event with ID " << id);
      return;
    }
    Handle(std::move(event), Source::Pipeline);
  });
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
}

void EventRouter::DeliverCached(std::unique_ptr<edr::Event> event) {
  const std::uint32_t id = event->GetId();
  if (!Guard(id, counters_, Reason::FileReplaced, [&] { event->Refresh(); })) return;
  Guard(id, counters_, Reason::NotProcessed, [&] { Handle(std::move(event), Source::FileCache); });
}

void EventRouter::Handle(std::unique_ptr<edr::Event> event, Source source) {
  if (should_process_(*event)) Dispatch(std::move(event), source);
}

void EventRouter::Dispatch(std::unique_ptr<edr::Event> event, Source source) {
  if (event->GetObjectType() == ObjectType::File && source == Source::Pipeline) {
    file_events_.Add(std::move(event));
    return;
  }
  deliver_(*event);
}

}  // namespace zagent::audit::internal
