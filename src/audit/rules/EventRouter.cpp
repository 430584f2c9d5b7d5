#include "src/audit/rules/EventRouter.h"

#include <exception>
#include <utility>

#include "common/src/util/Log.h"
#include "src/edr/EventRuleEngine.h"
#include "src/edr/process/StatHelper.h"

namespace zagent::audit::internal {
namespace {

using edr::ObjectType;

bool IsFileObject(const edr::Event& event) {
  return event.GetObjectType() == ObjectType::File || event.GetObjectType() == ObjectType::Directory;
}

// Runs one event's step and lets nothing out of it. What belongs to an event's life (its file is gone or replaced, it
// cannot be judged) is of interest to developers only.
template <typename Step>
void Guard(std::uint32_t event_id, const Step& step) {
  const auto log_expected = [&](const std::exception& error) {
    ZLOG_DEBUG("Failed to process event with ID " << event_id << ": " << error.what());
  };
  try {
    step();
  } catch (const edr::RuleEngineException& error) {
    log_expected(error);
  } catch (const edr::EventException& error) {
    log_expected(error);
  } catch (const common::StatHelperException& error) {
    log_expected(error);
  } catch (const std::exception& error) {
    ZLOG_ERROR("Failed to process event with ID " << event_id << ": " << error.what());
  }
}

}  // namespace

EventRouter::EventRouter(common::util::Clock& clock, ShouldProcess should_process, Deliver deliver)
    : should_process_(std::move(should_process)), deliver_(std::move(deliver)), file_events_(clock) {}

void EventRouter::Process(std::unique_ptr<edr::Event> event) {
  const std::uint32_t id = event->GetId();
  ZLOG_DEBUG("RuleEngine::ProcessEvent: Procesing event with ID " << id);
  DeliverExpired();
  Guard(id, [&] {
    // An access to a file that failed is worth a report, any other failure is not.
    if (!event->IsSuccessful() && !IsFileObject(*event)) {
      ZLOG_TRACE("RuleEngine::ProcessEvent: Dropping unsuccessful " << event->GetAction() << " event with ID " << id);
      return;
    }
    Handle(std::move(event), Source::Pipeline);
  });
}

void EventRouter::DeliverExpired() {
  for (std::unique_ptr<edr::Event>& event : file_events_.Expire()) {
    Guard(event->GetId(), [&] {
      event->Refresh();
      Handle(std::move(event), Source::FileCache);
    });
  }
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
