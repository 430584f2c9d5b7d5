#include "src/ioc/EventProcessor.h"

#include <chrono>
#include <exception>
#include <utility>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/process/ProcessInfo.h"
#include "src/ioc/process/ProcessTags.h"
#include "src/ioc/protobuf/Exception.h"

namespace zagent::ioc::internal {
namespace {

constexpr std::chrono::seconds kStaleCheckInterval{1};

}  // namespace

EventProcessor::EventProcessor(Engines engines, TtlProcessTree& tree, EventGenerator& generator,
                               SendMetadata send_metadata, const health::ComponentHealth& health,
                               common::util::Clock& clock)
    : engines_(std::move(engines)),
      tree_(tree),
      generator_(generator),
      send_metadata_(std::move(send_metadata)),
      health_(health),
      clock_(clock),
      last_stale_check_(clock.SteadyNow()),
      failures_(clock) {}

EventProcessor::~EventProcessor() {
  ZLOG_INFO("Destroying EventProcessor");
}

void EventProcessor::Process(std::unique_ptr<edr::Event> event) {
  if (event != nullptr && !event->IsSuccessful()) {
    ZLOG_DEBUG("Dropping unsuccessful " << event->GetAction() << " event with ID " << event->GetId());
    return;
  }
  if (event != nullptr) LoseOnFailure([&] { Handle(std::move(event)); });
  try {
    KeepHouse();
  } catch (const std::exception& error) {
    OnFailure(error);
  }
}

void EventProcessor::Handle(std::unique_ptr<edr::Event> event) {
  const std::int32_t pid = event->GetActorProcessId();
  if (tree_.IsPidReused(*event)) EndPredecessor(pid);
  if (!Enter(std::move(event), pid)) return;
  if (CallsForReport(tree_.Get(pid)->GetLastEvent())) Report(tree_.GetEventsFromCache(pid));
}

void EventProcessor::EndPredecessor(std::int32_t pid) {
  ProcessPending(tree_.GetDescendantEvents(pid));
  tree_.ExpireProcess(pid);
  tree_.DeleteStaleProcesses();
}

bool EventProcessor::Enter(std::unique_ptr<edr::Event> event, std::int32_t pid) {
  if (event->GetObjectType() == edr::ObjectType::Process) {
    // Its process is known from here on, and it stays there whatever the heuristics say.
    tree_.AddEvent(std::move(event));
    return !IsDamped(tree_.Get(pid)->GetLastEvent());
  }
  if (IsDamped(*event)) {
    ZLOG_DEBUG("Dropping " << event->GetAction() << " event for process " << ImagePathOf(pid) << " with ID "
                           << event->GetId() << " based on heuristics");
    return false;
  }
  tree_.AddEvent(std::move(event));
  return true;
}

bool EventProcessor::IsDamped(const edr::Event& event) {
  return engines_.heuristics->Process(event) == Verdict::Clean;
}

bool EventProcessor::CallsForReport(const edr::Event& last) {
  const Verdict verdict = engines_.hash_matching->Process(last);
  if (verdict > Verdict::CleanWithoutHash) return true;
  if (verdict == Verdict::CleanWithoutHash && last.GetObjectType() == edr::ObjectType::Process) return true;
  return engines_.tagging->Process(last) > Verdict::Clean;
}

void EventProcessor::Report(EventHeap events) {
  while (!events.IsEmpty()) {
    const std::unique_ptr<edr::Event> event = events.Pop();
    LoseOnFailure([&] { ReportOne(*event); });
  }
}

void EventProcessor::ReportOne(const edr::Event& event) {
  const std::int32_t pid = event.GetActorProcessId();
  const bool is_filtered = engines_.filtering->Process(event) == Verdict::Clean;
  ZLOG_DEBUG((is_filtered ? "Filtering out " : "Reporting ")
             << event.GetAction() << " event for process with pid " << pid << " (" << ImagePathOf(pid) << ")");
  if (!is_filtered) Generate(event);
}

void EventProcessor::ProcessPending(EventHeap events) {
  Judgements judgements;
  while (!events.IsEmpty()) {
    const std::unique_ptr<edr::Event> event = events.Pop();
    LoseOnFailure([&] { ProcessPendingOne(*event, judgements); });
  }
}

void EventProcessor::ProcessPendingOne(const edr::Event& event, Judgements& judgements) {
  const std::int32_t pid = event.GetActorProcessId();
  ZLOG_DEBUG("Processing pending Event: " << event.GetAction() << ". Event ID: " << event.GetId() << ". PID: " << pid);
  auto found = judgements.find(pid);
  if (found == judgements.end()) found = judgements.emplace(pid, Judge(pid)).first;
  const auto& [verdict, score] = found->second;
  if (verdict <= Verdict::Clean && !IsWorthReporting(event, score)) {
    ZLOG_DEBUG("Ignoring " << event.GetAction() << " event for clean process with pid " << pid << " ("
                           << ImagePathOf(pid) << ")");
    return;
  }
  const bool is_filtered = engines_.filtering->Process(event) == Verdict::Clean;
  ZLOG_DEBUG((is_filtered ? "Filtering out " : "Reporting ")
             << event.GetAction() << " event for '" << VerdictWord(verdict) << "' process with pid " << pid << " ("
             << ImagePathOf(pid) << ")");
  if (!is_filtered) Generate(event);
}

void EventProcessor::Generate(const edr::Event& event) {
  try {
    generator_.Process(event, send_metadata_());
  } catch (const protobuf::Exception& error) {
    ZLOG_DEBUG(error.what());  // as it is meant to be: a deletion of what was never reported, for one
  }
}

EventProcessor::Judgement EventProcessor::Judge(std::int32_t pid) const {
  const std::shared_ptr<ProcessInfo> process = tree_.Get(pid);
  Verdict verdict = Verdict::Malicious;
  if (const auto word = process->FindTag(process_tag::kHeuristicsVerdict)) verdict = VerdictFromWord(*word);
  if (verdict != Verdict::Clean) {
    if (const auto word = process->FindTag(process_tag::kHashMatchingVerdict)) verdict = VerdictFromWord(*word);
  }
  return {verdict, process->GetScore()};
}

bool EventProcessor::IsWorthReporting(const edr::Event& event, std::int64_t score) const {
  const std::int64_t threshold = engines_.threshold_score();
  if (threshold != 0 && score >= threshold) return true;
  const edr::EventType type = event.GetType();
  return type == edr::EventType::ProcessExit || type == edr::EventType::AbnormalEnd || type == edr::EventType::Delete;
}

void EventProcessor::KeepHouse() {
  ProcessPending(tree_.GetExpiredEvents());
  const common::util::Clock::SteadyTime now = clock_.SteadyNow();
  if (now - last_stale_check_ <= kStaleCheckInterval) return;
  last_stale_check_ = now;
  tree_.DeleteStaleProcesses();
  tree_.EndUntold();
  generator_.KeepHouse();
}

std::string EventProcessor::ImagePathOf(std::int32_t pid) const {
  // Not of the event: an end has no image.
  return tree_.Has(pid) ? tree_.Get(pid)->GetImage()->GetPath() : "";
}

template <typename Action>
void EventProcessor::LoseOnFailure(Action action) {
  try {
    action();
  } catch (const std::exception& error) {
    health_.CountDropped();
    OnFailure(error);
  }
}

void EventProcessor::OnFailure(const std::exception& error) {
  ZLOG_DEBUG("EventProcessor: " << error.what());
  if (const std::uint64_t failures = failures_.Take()) {
    ZLOG_ERROR("EventProcessor: Failed " << failures << " times, at last: " << error.what());
  }
}

}  // namespace zagent::ioc::internal
