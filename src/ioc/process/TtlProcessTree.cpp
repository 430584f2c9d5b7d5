#include "src/ioc/process/TtlProcessTree.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <queue>

#include "common/src/util/Log.h"
#include "src/edr/process/PseudoTerminateEvent.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/process/ProcessTags.h"

namespace zagent::ioc {
namespace {

namespace process_tag = internal::process_tag;
using edr::EventType;
using internal::EventHeap;

constexpr std::int32_t kInit = 1;
// Of one process upwards. Nobody nests programs so deeply in good faith.
constexpr std::size_t kMaxMissingAncestors = 1'000;
// Looks into procfs a second for those whose end nobody may tell: 50,000 in half an hour.
constexpr std::size_t kChecksAtOnce = 32;
// What a process did last, its end included, is here by then: events of files rest for half a minute.
constexpr std::chrono::seconds kLastWordsTime{45};
constexpr std::chrono::minutes kWarningPause(1);

bool IsEnd(const edr::Event& event) {
  return event.GetType() == EventType::ProcessExit || event.GetType() == EventType::AbnormalEnd;
}

bool HasFile(const common::ImageInfo& image) {
  return !image.GetDevice().empty();
}

// By the file, where both tell one: its path gets " (deleted)" behind it when it is replaced on disk, and another file
// may have got its path. A file system may tell a file's device in two ways, but not at one path.
bool IsSameProgram(const common::ImageInfo& known, const common::ImageInfo& other) {
  const bool is_same_path = known.GetPath() == other.GetPath();
  if (!HasFile(known) || !HasFile(other)) return is_same_path;
  return known.GetInode() == other.GetInode() && (is_same_path || known.GetDevice() == other.GetDevice());
}

}  // namespace

TtlProcessTree::TtlProcessTree(common::SqlStorage* snapshot, std::chrono::seconds ttl, common::util::Clock& clock,
                               const std::string& proc_root)
    : TtlProcessTree(snapshot, ttl, clock, proc_root, Bounds{}) {}

TtlProcessTree::TtlProcessTree(common::SqlStorage* snapshot, std::chrono::seconds ttl, common::util::Clock& clock,
                               const std::string& proc_root, Bounds bounds)
    : snapshot_(snapshot),
      ttl_(ttl),
      clock_(clock),
      bounds_(bounds),
      live_(clock, proc_root),
      on_cache_full_([this](std::int32_t pid) { expired_pids_.insert(pid); }) {
  if (snapshot_ != nullptr) Load();
}

TtlProcessTree::~TtlProcessTree() {
  if (snapshot_ == nullptr || !Has(kInit)) return;
  try {
    Save();
  } catch (const std::exception& error) {
    ZLOG_ERROR("Failed to update 'TtlProcesses' table in snapshot DB. " << error.what());
  }
}

void TtlProcessTree::AddEvent(std::unique_ptr<edr::Event> event) {
  const std::int32_t pid = event->GetActorProcessId();
  ZLOG_DEBUG("Adding " << event->GetAction() << " Event: " << event->GetId() << " with PID:" << pid);
  const Pointer process = Find(pid);
  // An abnormal end knows no parent.
  if (process && event->GetType() != EventType::AbnormalEnd) FollowToInit(*process, *event);
  if (event->GetType() == EventType::ProcessStart && pid >= kInit) {
    AddStart(std::move(event), process);
    return;
  }
  if (!process) {
    throw TtlProcessTreeException("Event id: " + std::to_string(event->GetId()) +
                                  " cannot be added as actor process information is not available");
  }
  AddTo(*process, std::move(event));
}

void TtlProcessTree::AddTo(ProcessInfo& process, std::unique_ptr<edr::Event> event) {
  const std::int32_t pid = process.GetPid();
  const bool is_end = IsEnd(*event);
  with_events_.insert(pid);
  process.AddEvent(std::move(event));
  if (is_end) MarkEnded(process);
  if (!process.HasTag(process_tag::kTtlExpired)) return;
  // Nothing else will come that lets these events out.
  if (process.HasTag(process_tag::kTerminated)) {
    expired_pids_.insert(pid);
  } else if (late_.insert(pid).second) {
    late_queue_.emplace_back(pid, clock_.SteadyNow());
  }
}

void TtlProcessTree::MarkEnded(ProcessInfo& process) {
  if (process.HasTag(process_tag::kTerminated)) return;
  process.AddTag(process_tag::kTerminated);
  terminated_.push_back(process.GetPid());
  if (process.HasTag(process_tag::kTtlExpired)) stale_.push_back(process.GetPid());
}

void TtlProcessTree::MarkExpired(ProcessInfo& process) {
  if (process.HasTag(process_tag::kTtlExpired)) return;
  process.AddTag(process_tag::kTtlExpired);
  if (process.HasTag(process_tag::kTerminated)) stale_.push_back(process.GetPid());
}

void TtlProcessTree::FollowToInit(ProcessInfo& process, const edr::Event& event) {
  const std::int32_t old = process.GetParent();
  if (process.GetPid() == kInit || old == kInit || event.GetActorParentProcessId() != kInit) return;
  ZLOG_INFO("Updating Parent of PID: " << process.GetPid());
  ZLOG_INFO("Old Parent PID: " << old);
  ZLOG_INFO("New Parent PID: " << kInit);
  MoveUnderInit(process);
}

void TtlProcessTree::MoveUnderInit(ProcessInfo& process) {
  const std::lock_guard lock(mutex_);
  if (processes_.Contains(process.GetParent())) processes_.Get(process.GetParent()).RemoveChild(process.GetPid());
  process.SetParent(kInit);
  processes_.Get(kInit).AddChild(process.GetPid());
}

void TtlProcessTree::AddStart(std::unique_ptr<edr::Event> event, const Pointer& old) {
  if (old && IsTheSame(*old, *event)) {
    untold_.erase(old->GetPid());
    AddTo(*old, std::move(event));
    return;
  }
  const std::int64_t time = event->GetTimestamp();
  const std::optional<edr::Event::ActorStart> known = event->GetActorStart();
  auto process = std::make_shared<ProcessInfo>(std::move(event), on_cache_full_);
  const std::int32_t parent = EnsureParent(process->GetPid(), process->GetParent(), time);
  const bool is_new = !old || IsAnother(*process, parent, *old);
  if (is_new) process->SetStartSinceBoot(known ? known->since_boot : live_.FindStartBefore(process->GetPid(), time));
  if (old) {
    Replace(process, parent, *old, is_new);
  } else {
    Enter(process, parent);
  }
  with_events_.insert(process->GetPid());
  untold_.erase(process->GetPid());
}

// A start without a serial number was made up, for whoever was not told of it: the process may be known here all the
// same, from an earlier run or from procfs. Another program is another matter: the old one's verdicts do not hold for
// it.
bool TtlProcessTree::IsTheSame(const ProcessInfo& known, const edr::Event& start) {
  if (start.GetId() != 0 || known.HasTag(process_tag::kTerminated)) return false;
  // When it started its program is not when it was made.
  const auto start_since_boot = known.GetStartSinceBoot();
  const auto made = start_since_boot ? live_.ToEpoch(*start_since_boot) : std::nullopt;
  if (!internal::LiveProcesses::IsSameStart(known.GetCreationTime(), start.GetTimestamp()) &&
      !(made && internal::LiveProcesses::IsSameStart(*made, start.GetTimestamp())) && !HasJustLeft(known, start)) {
    return false;
  }
  const common::ImageInfo* image = start.GetImage();
  return image == nullptr || IsSameProgram(*known.GetImage(), *image);
}

// Of who was gone when procfs was asked nobody knows when it started: the start carries the time of what it did last.
bool TtlProcessTree::HasJustLeft(const ProcessInfo& known, const edr::Event& start) const {
  return untold_.count(known.GetPid()) != 0 && start.GetTimestamp() > known.GetCreationTime() &&
         start.GetActorParentProcessId() == known.GetParent() && live_.IsGone(known.GetPid());
}

void TtlProcessTree::EnsureInit(std::int32_t pid, std::int32_t ppid) {
  if (Has(kInit)) return;
  // It was there before everybody, whatever the clock says.
  const Pointer init = live_.Find(kInit, std::numeric_limits<std::int64_t>::max(), on_cache_full_);
  if (!init) {
    throw common::GenericProcessTreeException("Ppid: " + std::to_string(ppid) +
                                              " does not exist for process: " + std::to_string(pid));
  }
  Enter(init, common::ProcessInfo::kNoParent);
}

// Answers who is to be the parent of `pid`, which stands in the tree then, with all above it.
std::int32_t TtlProcessTree::EnsureParent(std::int32_t pid, std::int32_t ppid, std::int64_t time) {
  if (pid == kInit) return common::ProcessInfo::kNoParent;
  EnsureInit(pid, ppid);
  std::vector<Pointer> missing;
  std::unordered_set<std::int32_t> seen{pid};
  std::int32_t above = ppid;
  while (above > kInit && !Has(above) && missing.size() < kMaxMissingAncestors && seen.insert(above).second) {
    Pointer ancestor = live_.Find(above, time, on_cache_full_);
    if (!ancestor) break;
    above = ancestor->GetParent();
    missing.push_back(std::move(ancestor));
  }
  // A ring is none of parents: processes came and went between two looks.
  std::int32_t parent = above > kInit && above != pid && Has(above) ? above : kInit;
  for (auto ancestor = missing.rbegin(); ancestor != missing.rend(); ++ancestor) {
    Enter(*ancestor, parent);
    parent = (*ancestor)->GetPid();
    untold_.emplace(parent, Untold{.is_reported = false});
  }
  return parent;
}

bool TtlProcessTree::IsBelow(std::int32_t pid, std::int32_t ancestor) const {
  if (pid < kInit) return false;
  const auto above = processes_.GetAncestors(pid);
  return std::any_of(above.begin(), above.end(), [ancestor](const auto* info) { return info->GetPid() == ancestor; });
}

void TtlProcessTree::Enter(const Pointer& process, std::int32_t parent) {
  const std::string pid = std::to_string(process->GetPid());
  if (Has(process->GetPid())) {
    throw common::GenericProcessTreeException("Process with pid " + pid + " already exists in the process tree");
  }
  if (process->GetPid() != kInit && !Has(parent)) {
    throw common::GenericProcessTreeException("Ppid: " + std::to_string(parent) +
                                              " does not exist for process: " + pid);
  }
  process->SetParent(parent);
  process->SetSerial(++last_serial_);
  process->SetStarter(SerialOf(parent));
  {
    const std::lock_guard lock(mutex_);
    processes_.Add(process);
  }
  Remember(process);
}

// Who starts a program below a child of his own is not the process that had the pid before. Process 1 is always itself,
// whatever was told of its end.
bool TtlProcessTree::IsAnother(const ProcessInfo& process, std::int32_t parent, const ProcessInfo& old) const {
  return process.GetPid() != kInit && (old.HasTag(process_tag::kTerminated) || IsBelow(parent, process.GetPid()));
}

void TtlProcessTree::Replace(const Pointer& process, std::int32_t parent, ProcessInfo& old, bool is_another) {
  process->SetParent(parent);
  process->SetSerial(is_another ? ++last_serial_ : old.GetSerial());
  process->SetStarter(SerialOf(parent));
  if (!is_another) process->SetStartSinceBoot(old.GetStartSinceBoot());
  {
    const std::lock_guard lock(mutex_);
    if (!is_another) {
      for (const std::int32_t child : old.GetChildren()) process->AddChild(child);
    }
    processes_.Add(process);
  }
  process->TakeEventsOf(old);
  Remember(process);
}

std::uint64_t TtlProcessTree::SerialOf(std::int32_t pid) const {
  const Pointer process = Find(pid);
  return process ? process->GetSerial() : 0;
}

void TtlProcessTree::Remember(const Pointer& process) {
  const std::int32_t pid = process->GetPid();
  process->CountIn(usage_);
  ttl_queue_.emplace_back(pid, clock_.SteadyNow());
  const auto [age, is_new] = ages_.emplace(pid, next_age_);
  if (!is_new) {
    by_age_.erase(age->second);
    age->second = next_age_;
  }
  by_age_.emplace(next_age_, pid);
  ++next_age_;
}

TtlProcessTree::Pointer TtlProcessTree::Find(std::int32_t pid) const {
  const std::lock_guard lock(mutex_);
  return processes_.Contains(pid) ? processes_.GetPointer(pid) : nullptr;
}

std::shared_ptr<ProcessInfo> TtlProcessTree::Get(std::int32_t pid) const {
  const std::lock_guard lock(mutex_);
  return processes_.GetPointer(pid);
}

bool TtlProcessTree::Has(std::int32_t pid) const {
  const std::lock_guard lock(mutex_);
  return processes_.Contains(pid);
}

bool TtlProcessTree::IsPidReused(const edr::Event& event) const {
  if (event.GetType() != EventType::ProcessStart) return false;
  const Pointer process = Find(event.GetActorProcessId());
  return process && process->HasTag(process_tag::kTerminated);
}

// Who was there when the process started has the serial; the time is for a parent of whom was told later.
std::shared_ptr<ProcessInfo> TtlProcessTree::FindParent(const edr::Event& event) const {
  Pointer parent = Find(event.GetActorParentProcessId());
  if (!parent || parent->GetCreationTime() <= event.GetTimestamp()) return parent;
  const Pointer process = Find(event.GetActorProcessId());
  return process && process->GetStarter() == parent->GetSerial() ? parent : nullptr;
}

void TtlProcessTree::Take(ProcessInfo& process, EventHeap& heap) {
  ZLOG_DEBUG("Adding Events from cache for PID: " << process.GetPid());
  for (auto& event : process.TakeEvents()) heap.Push(std::move(event));
  with_events_.erase(process.GetPid());
}

// A process may have thousands of children that wait for nothing.
void TtlProcessTree::TakeChildren(const ProcessInfo& process, EventHeap& heap) {
  const auto& children = process.GetChildren();
  std::vector<Pointer> found;
  if (children.size() <= with_events_.size()) {
    for (const std::int32_t child : children) {
      if (with_events_.count(child) != 0) found.push_back(Find(child));
    }
  } else {
    for (const std::int32_t other : with_events_) {
      if (children.count(other) != 0) found.push_back(Find(other));
    }
  }
  for (const Pointer& child : found) {
    if (child) Take(*child, heap);
  }
}

EventHeap TtlProcessTree::GetEventsFromCache(std::int32_t pid) {
  EventHeap heap;
  const Pointer process = Get(pid);
  Take(*process, heap);
  TakeChildren(*process, heap);
  return heap;
}

EventHeap TtlProcessTree::GetDescendantEvents(std::int32_t pid) {
  EventHeap heap;
  std::unordered_set<std::int32_t> seen{pid};
  std::queue<Pointer> walk;
  walk.push(Get(pid));
  while (!walk.empty()) {
    const Pointer process = std::move(walk.front());
    walk.pop();
    Take(*process, heap);
    for (const std::int32_t child : process->GetChildren()) {
      Pointer found = seen.insert(child).second ? Find(child) : nullptr;
      if (found) walk.push(std::move(found));
    }
  }
  return heap;
}

EventHeap TtlProcessTree::GetExpiredEvents() {
  EventHeap heap;
  DropJudged(heap);
  ExpireDue();
  EnforceBounds();
  for (const std::int32_t pid : expired_pids_) {
    if (const Pointer process = Find(pid)) Take(*process, heap);
  }
  expired_pids_.clear();
  return heap;
}

void TtlProcessTree::ExpireDue() {
  const auto now = clock_.SteadyNow();
  const auto is_due = [&](const TtlQueue& queue) {
    return !queue.empty() && std::chrono::duration_cast<std::chrono::seconds>(now - queue.front().second) >= ttl_;
  };
  for (; is_due(ttl_queue_); ttl_queue_.pop_front()) {
    const Pointer process = Find(ttl_queue_.front().first);
    if (!process) continue;
    expired_pids_.insert(process->GetPid());
    MarkExpired(*process);
  }
  for (; is_due(late_queue_); late_queue_.pop_front()) {
    expired_pids_.insert(late_queue_.front().first);
    late_.erase(late_queue_.front().first);
  }
}

void TtlProcessTree::ExpireProcess(std::int32_t pid) {
  std::vector<Pointer> due{Get(pid)};
  std::unordered_set<std::int32_t> seen{pid};
  // A list and no recursion: whoever nests processes deeply must not use up the stack.
  while (!due.empty()) {
    const Pointer process = std::move(due.back());
    due.pop_back();
    if (process->HasTag(process_tag::kTerminated)) {
      for (const std::int32_t child : process->GetChildren()) {
        Pointer found = seen.insert(child).second ? Find(child) : nullptr;
        if (found) due.push_back(std::move(found));
      }
    } else if (process->GetPid() != kInit) {
      MoveUnderInit(*process);
    }
    MarkExpired(*process);
    if (process->HasEvents()) expired_pids_.insert(process->GetPid());
  }
}

void TtlProcessTree::DeleteStaleProcesses() {
  const auto is_gone = [this](std::int32_t pid) {
    const Pointer process = Find(pid);
    return !process || pid == kInit || !process->HasTag(process_tag::kTerminated);
  };
  while (!terminated_.empty() && is_gone(terminated_.front())) terminated_.pop_front();
  for (std::size_t left = stale_.size(); left > 0; --left) {
    const std::int32_t pid = stale_.front();
    stale_.pop_front();
    const Pointer process = Find(pid);
    // Process 1 stays, and so does who has got the pid meanwhile.
    if (!process || pid == kInit || !process->HasTag(process_tag::kTerminated) ||
        !process->HasTag(process_tag::kTtlExpired)) {
      continue;
    }
    if (process->HasEvents()) {
      stale_.push_back(pid);
      continue;
    }
    ZLOG_DEBUG("DeleteStaleProcesses: Deleting ProcessInfo for PID: " << pid);
    Delete(pid);
  }
}

void TtlProcessTree::Delete(std::int32_t pid) {
  std::optional<std::int32_t> lost;
  {
    const std::lock_guard lock(mutex_);
    for (const std::int32_t child : processes_.Get(pid).GetChildren()) {
      if (!processes_.Contains(child)) lost = child;
    }
    processes_.Delete(pid);
  }
  with_events_.erase(pid);
  expired_pids_.erase(pid);
  untold_.erase(pid);
  const auto age = ages_.find(pid);
  by_age_.erase(age->second);
  ages_.erase(age);
  if (lost) {
    throw common::GenericProcessTreeException("Child process with PID: " + std::to_string(*lost) +
                                              " not found while deleting for Process PID: " + std::to_string(pid));
  }
}

// A look that fails, as without a free descriptor, is nobody's end.
bool TtlProcessTree::IsStillThere(const ProcessInfo& process) const {
  const auto start = live_.FindStart(process.GetPid());
  return start ? start == process.GetStartSinceBoot() : !live_.IsGone(process.GetPid());
}

// Some of them a turn, one after the other.
void TtlProcessTree::EndUntold() {
  const std::size_t count = std::min(untold_.size(), kChecksAtOnce);
  for (std::size_t i = 0; i < count && !untold_.empty(); ++i) {
    auto next = untold_.upper_bound(last_checked_);
    if (next == untold_.end()) next = untold_.begin();
    const std::int32_t pid = next->first;
    last_checked_ = pid;
    const Pointer process = Find(pid);
    if (process && IsStillThere(*process)) continue;
    const auto now = clock_.SteadyNow();
    if (!next->second.gone_since) next->second.gone_since = now;
    // Who has got its pid is waited for by nobody: the two would be taken for one.
    if (process && now - *next->second.gone_since < kLastWordsTime && live_.IsGone(pid)) continue;
    const bool is_reported = next->second.is_reported;
    untold_.erase(next);
    if (!process || process->HasTag(process_tag::kTerminated)) continue;
    ZLOG_DEBUG("Process with pid " << pid << " has ended without a word");
    if (is_reported) {
      AddEvent(std::make_unique<edr::PseudoTerminateEvent>(*process, clock_));
      continue;
    }
    MarkEnded(*process);
  }
}

std::vector<std::shared_ptr<ProcessInfo>> TtlProcessTree::GetChildren(std::int32_t pid) const {
  const std::lock_guard lock(mutex_);
  std::vector<Pointer> children;
  for (const std::int32_t child : processes_.Get(pid).GetChildren()) {
    if (processes_.Contains(child)) children.push_back(processes_.GetPointer(child));
  }
  return children;
}

std::vector<std::shared_ptr<ProcessInfo>> TtlProcessTree::GetSiblings(std::int32_t pid) const {
  const std::lock_guard lock(mutex_);
  const std::int32_t parent = processes_.Get(pid).GetParent();
  std::vector<Pointer> siblings;
  if (pid == kInit || !processes_.Contains(parent)) return siblings;
  for (const std::int32_t child : processes_.Get(parent).GetChildren()) {
    if (child != pid && processes_.Contains(child)) siblings.push_back(processes_.GetPointer(child));
  }
  return siblings;
}

std::map<std::int32_t, std::string> TtlProcessTree::GetAncestors(std::int32_t pid) const {
  if (pid < kInit) throw std::invalid_argument("TtlProcessTree::GetAncestors: 'pid' is invalid");
  const std::lock_guard lock(mutex_);
  std::map<std::int32_t, std::string> ancestors;
  for (const ProcessInfo* info : processes_.GetAncestors(pid)) {
    ancestors.emplace(info->GetPid(), info->GetImage()->GetPath());
  }
  return ancestors;
}

void TtlProcessTree::Update(const std::shared_ptr<ProcessInfo>& process) {
  if (!process) throw TtlProcessTreeException("Failed to update process info: there is none");
  try {
    const Pointer old = Get(process->GetPid());
    if (old == process) return;
    process->SetParent(old->GetParent());
    process->SetSerial(old->GetSerial());
    process->SetStarter(old->GetStarter());
    process->CountIn(usage_);
    const std::lock_guard lock(mutex_);
    for (const std::int32_t child : old->GetChildren()) process->AddChild(child);
    processes_.Add(process);
  } catch (const std::exception& error) {
    throw TtlProcessTreeException(std::string("Failed to update process info: ") + error.what());
  }
  with_events_.insert(process->GetPid());
}

std::size_t TtlProcessTree::GetSize() const {
  const std::lock_guard lock(mutex_);
  return processes_.GetSize();
}

// Their events were handed out at the last call. What has come since goes first.
void TtlProcessTree::DropJudged(EventHeap& heap) {
  std::map<std::uint64_t, std::int32_t> busy;
  judged_bytes_ = 0;
  for (const auto& [age, pid] : judged_) {
    const auto found = by_age_.find(age);
    if (found == by_age_.end()) continue;
    const Pointer process = Find(pid);
    if (process->HasEvents()) {
      Take(*process, heap);
      busy.emplace(age, pid);
      judged_bytes_ += process->GetEntryBytes();
      continue;
    }
    try {
      Delete(pid);
    } catch (const common::GenericProcessTreeException& error) {
      ZLOG_DEBUG(error.what());
    }
  }
  judged_ = std::move(busy);
}

void TtlProcessTree::EnforceBounds() {
  const std::size_t processes = GetSize() - judged_.size();
  const std::size_t entries = usage_->entries - judged_bytes_;
  if (processes > bounds_.processes || entries > bounds_.entry_bytes) {
    ForgetOldest(processes - std::min(processes, bounds_.processes), entries - std::min(entries, bounds_.entry_bytes));
  }
  if (usage_->events > bounds_.bytes) JudgeOldest(usage_->events - bounds_.bytes / 8 * 7);
  WarnOnceAMinute();
}

// Who has ended goes first: a storm of short lives must not cost the memory of those that go on. Among the others all
// have the same ttl, so the oldest are those that expired first.
void TtlProcessTree::ForgetOldest(std::size_t count, std::size_t bytes) {
  const auto is_enough = [this, most = judged_.size() + count, most_bytes = judged_bytes_ + bytes] {
    return judged_.size() >= most && judged_bytes_ >= most_bytes;
  };
  for (; !terminated_.empty() && !is_enough(); terminated_.pop_front()) {
    const Pointer process = Find(terminated_.front());
    if (process && process->HasTag(process_tag::kTerminated)) Forget(ages_.at(process->GetPid()), process->GetPid());
  }
  for (auto oldest = by_age_.begin(); oldest != by_age_.end() && !is_enough(); ++oldest) {
    Forget(oldest->first, oldest->second);
  }
}

// Once it is judged.
void TtlProcessTree::Forget(std::uint64_t age, std::int32_t pid) {
  if (pid == kInit || !judged_.emplace(age, pid).second) return;
  expired_pids_.insert(pid);
  judged_bytes_ += Find(pid)->GetEntryBytes();
  ++forgotten_;
}

// An eighth more than is needed, so that not every event looks for the oldest.
void TtlProcessTree::JudgeOldest(std::size_t bytes) {
  std::size_t freed = 0;
  for (auto oldest = by_age_.begin(); oldest != by_age_.end() && freed < bytes; ++oldest) {
    const std::size_t held = Find(oldest->second)->GetCachedBytes();
    if (held == 0) continue;
    freed += held;
    ++judged_early_;
    expired_pids_.insert(oldest->second);
  }
}

void TtlProcessTree::WarnOnceAMinute() {
  if (forgotten_ + judged_early_ == 0) return;
  const auto now = clock_.SteadyNow();
  if (warned_ && now < *warned_ + kWarningPause) return;
  warned_ = now;
  ZLOG_WARNING("TtlProcessTree: " << GetSize() << " processes and " << usage_->events / 1024
                                  << " KiB of cached events, at most " << bounds_.processes << " and "
                                  << bounds_.bytes / 1024 << " KiB: the oldest are judged early (" << judged_early_
                                  << ") and forgotten (" << forgotten_ << "); " << usage_->entries / 1024
                                  << " KiB are known of them, at most " << bounds_.entry_bytes / 1024 << " KiB");
  forgotten_ = 0;
  judged_early_ = 0;
}

}  // namespace zagent::ioc
