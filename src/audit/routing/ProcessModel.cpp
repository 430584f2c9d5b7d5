#include "src/audit/routing/ProcessModel.h"

#include <chrono>
#include <exception>
#include <fstream>
#include <stdexcept>
#include <unordered_set>
#include <utility>

#include "common/src/util/Log.h"
#include "common/src/util/ProcessTimes.h"
#include "src/audit/routing/EventGuard.h"
#include "src/audit/routing/ProcessInfo.h"
#include "src/edr/process/ProcFSProcessInfo.h"
#include "src/edr/process/PseudoRunningEvent.h"
#include "src/edr/process/PseudoTerminateEvent.h"

namespace zagent::audit::internal {
namespace {

using edr::EventType;
using edr::ObjectType;
using Reason = IntakeCounters::Reason;

// Of one process upwards. Nobody nests programs so deeply in good faith.
constexpr std::size_t kMaxMissingAncestors = 1'000;
// Events have the time of whole seconds.
constexpr std::int64_t kEventTimeStep = 1'000'000'000;
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

bool IsProcessEvent(const edr::Event& event) {
  return event.GetObjectType() == ObjectType::Process;
}

// The one that starts a program or makes a process is its parent.
std::int32_t ActorOf(const edr::Event& event) {
  return IsProcessEvent(event) ? event.GetActorParentProcessId() : event.GetActorProcessId();
}

// Whether a process that procfs shows now was there when the event happened.
bool WasThere(std::int64_t start_since_epoch, const edr::Event& event) {
  return start_since_epoch < event.GetTimestamp() + kEventTimeStep;
}

// The login of a process; that of another one, `known`, where the kernel does not tell.
std::uint32_t ReadLoginUid(std::int32_t pid, std::uint32_t known, const std::string& proc_root) {
  std::ifstream in(proc_root + "/" + std::to_string(pid) + "/loginuid");
  std::uint32_t login_uid = 0;
  return in >> login_uid ? login_uid : known;
}

}  // namespace

ProcessModel::ProcessModel(common::util::Clock& clock, IntakeCounters& counters, IsContainer is_container,
                           std::string proc_root)
    : clock_(clock),
      counters_(counters),
      is_container_(std::move(is_container)),
      proc_root_(std::move(proc_root)),
      cleaner_(tree_, clock, proc_root_) {}

void ProcessModel::Handle(std::unique_ptr<edr::Event>&& event, EventSource source, Road& road) {
  ConsumeInvalidation();
  switch (event->GetType()) {
    case EventType::ProcessClone:
      EndPredecessor(*event, road);
      clones_.Add(std::move(event));
      return;
    case EventType::ProcessExit:
    case EventType::AbnormalEnd:
      HandleEnd(std::move(event), source, road);
      return;
    default:
      break;
  }
  const bool is_start = event->GetType() == EventType::ProcessStart && event->GetActorProcessId() >= 1;
  if (is_start) EndPredecessor(*event, road);
  EnsureActor(*event, road);
  if (is_start) Enter(*event);
  road.PassOn(std::move(event), source);
}

void ProcessModel::HandleEnd(std::unique_ptr<edr::Event>&& event, EventSource source, Road& road) {
  const std::int32_t pid = event->GetActorProcessId();
  if (pid < 1 || !tree_.Contains(pid)) {
    road.PassOver(*event);
    return;
  }
  const auto forget = [pid](ProcessModel* model) {
    model->tree_.Delete(pid);
    model->clones_.Erase(pid);
  };
  // Whatever comes of the event.
  const std::unique_ptr<ProcessModel, decltype(forget)> forgotten(this, forget);
  road.FlushFileEvents(pid);
  road.PassOn(std::move(event), source);
}

// Otherwise the new process would get the age, the parents and the children of the old one.
void ProcessModel::EndPredecessor(const edr::Event& start_or_clone, Road& road) {
  const std::int32_t pid = start_or_clone.GetActorProcessId();
  if (!tree_.Contains(pid)) return;
  const common::ProcessInfo& known = tree_.Get(pid);
  const auto found = common::util::ReadStartSinceBoot(pid, proc_root_);
  if (!found || !known.GetStartSinceBoot() || found == known.GetStartSinceBoot()) return;
  if (!FindStartSinceBoot(pid, start_or_clone)) return;  // who is there now is yet another one
  ZLOG_DEBUG("Process with pid " << pid << " is another one than before");
  GuardEvent(0, counters_, Reason::NotProcessed, [&] {
    HandleEnd(std::make_unique<edr::PseudoTerminateEvent>(known, clock_), EventSource::Pipeline, road);
  });
}

void ProcessModel::EnsureActor(edr::Event& event, Road& road) {
  std::unique_ptr<edr::Event> actor = FindMissingActor(event);
  if (!actor) return;
  const std::int32_t named = ActorOf(event);
  const std::int32_t pid = actor->GetActorProcessId();
  if (!IsProcessEvent(event) && pid >= 1 && pid != named) {
    ZLOG_TRACE("Detected that Event has thread id " << named << " instead of process id " << pid);
    ZLOG_TRACE("Updating Event with process id " << pid);
    event.UpdateActorProcessId(pid);
    if (tree_.Contains(pid)) return;
  }
  // From the top down, so that each finds its parent in the tree. A start that fails does not stop the event.
  Starts starts = WithMissingAncestors(std::move(actor));
  for (auto start = starts.rbegin(); start != starts.rend(); ++start) {
    GuardEvent((*start)->GetId(), counters_, Reason::NotProcessed, [&] {
      Enter(**start);
      if (is_container_(**start)) {
        ZLOG_DEBUG("Creating pseudo event for container process " << (*start)->GetActorProcessId());
      }
      road.PassOn(std::move(*start), EventSource::Pipeline);
    });
  }
}

ProcessModel::Starts ProcessModel::WithMissingAncestors(std::unique_ptr<edr::Event> start) {
  Starts starts;
  std::unordered_set<std::int32_t> pids;
  // Parents may form a ring while processes come and go between two looks.
  while (start && starts.size() < kMaxMissingAncestors && pids.insert(start->GetActorProcessId()).second) {
    std::unique_ptr<edr::Event> parent = FindMissingActor(*start);
    starts.push_back(std::move(start));
    start = std::move(parent);
  }
  return starts;
}

std::unique_ptr<edr::Event> ProcessModel::FindMissingActor(const edr::Event& event) {
  const std::int32_t pid = ActorOf(event);
  if (pid < 1 || tree_.Contains(pid)) return nullptr;
  ZLOG_TRACE("Not found Actor PID: " << pid << " in process tree, creating actor process");
  std::unique_ptr<edr::Event> start = StartFromProcFs(pid, event);
  if (!start && !IsProcessEvent(event)) start = StartFromEvent(pid, event);
  if (!start) start = StartFromClone(pid);
  return start;
}

std::unique_ptr<edr::Event> ProcessModel::StartFromProcFs(std::int32_t pid, const edr::Event& event) const {
  ZLOG_TRACE("Creating actor process from ProcFS: " << pid);
  try {
    // A parent may belong to another login than what it has started, or to none.
    const std::uint32_t auid =
        IsProcessEvent(event) ? ReadLoginUid(pid, event.GetActorAuid(), proc_root_) : event.GetActorAuid();
    const common::ProcFSProcessInfo process(pid, auid, proc_root_);
    // One that has ended and waits for its parent has no program any more.
    if (!WasThere(process.GetCreationTime(), event) || process.GetImage()->GetPath().empty()) return nullptr;
    return std::make_unique<edr::PseudoRunningEvent>(process);
  } catch (const std::exception& error) {
    ZLOG_TRACE("Failed to create process from ProcFS: " << error.what());
    return nullptr;
  }
}

std::unique_ptr<edr::Event> ProcessModel::StartFromEvent(std::int32_t pid, const edr::Event& event) const {
  ZLOG_TRACE("Creating process from Event data: " << pid);
  try {
    return std::make_unique<edr::PseudoRunningEvent>(ProcessInfo(event, tree_));
  } catch (const std::exception& error) {
    ZLOG_TRACE("Failed to create process from Event data: " << error.what());
    return nullptr;
  }
}

std::unique_ptr<edr::Event> ProcessModel::StartFromClone(std::int32_t pid) {
  ZLOG_TRACE("Creating process from Clone Cache: " << pid);
  try {
    const std::unique_ptr<edr::Event> clone = clones_.Take(pid);
    return clone ? std::make_unique<edr::PseudoRunningEvent>(ProcessInfo(*clone, tree_)) : nullptr;
  } catch (const std::exception& error) {
    ZLOG_TRACE("Failed to create process from Clone Cache: " << error.what());
    return nullptr;
  }
}

// A process that starts another program stays the same: its children and its start are those that the tree has.
void ProcessModel::Enter(edr::Event& start) {
  auto process = std::make_unique<ProcessInfo>(start, tree_);
  const std::int32_t pid = process->GetPid();
  if (tree_.Contains(pid)) {
    const common::ProcessInfo& old = tree_.Get(pid);
    for (const std::int32_t child : old.GetChildren()) process->AddChild(child);
    process->SetStartSinceBoot(old.GetStartSinceBoot());
  } else {
    process->SetStartSinceBoot(FindStartSinceBoot(pid, start));
    start.SetActorStart(process->GetStartSinceBoot());
  }
  tree_.Add(std::move(process));
}

std::optional<std::int64_t> ProcessModel::FindStartSinceBoot(std::int32_t pid, const edr::Event& event) {
  const auto start = common::util::ReadStartSinceBoot(pid, proc_root_);
  try {
    if (start && WasThere(GetBootTime() * kNanosecondsPerSecond + *start, event)) return start;
  } catch (const std::runtime_error& error) {
    ZLOG_DEBUG(error.what());
  }
  return std::nullopt;
}

// Not for every start: the kernel adds up all interrupts for whoever reads that file. It moves when the clock is set.
std::int64_t ProcessModel::GetBootTime() {
  const auto now = clock_.SteadyNow();
  if (now >= boot_time_known_until_) {
    boot_time_ = common::util::ReadBootTime(proc_root_);
    boot_time_known_until_ = now + std::chrono::seconds(1);
  }
  return boot_time_;
}

void ProcessModel::Clean(Road& road) {
  ConsumeInvalidation();
  for (const std::int32_t pid : cleaner_.Clean()) {
    try {
      Handle(std::make_unique<edr::PseudoTerminateEvent>(tree_.Get(pid), clock_), EventSource::Pipeline, road);
    } catch (const std::exception& error) {
      counters_.Add(Reason::NotProcessed);
      ZLOG_DEBUG("Failed to process exit event"
                 << ": " << error.what());
    }
  }
}

void ProcessModel::ConsumeInvalidation() {
  if (invalidated_.exchange(false)) clones_.Clear();
}

}  // namespace zagent::audit::internal
