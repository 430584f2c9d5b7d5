#include "src/ioc/process/ProcessInfo.h"

#include <iterator>
#include <limits>
#include <utility>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/process/EventSize.h"

namespace zagent::ioc {

ProcessInfo::Description ProcessInfo::Describe(const edr::Event& start) {
  Description known;
  known.pid = start.GetActorProcessId();
  known.ppid = start.GetActorParentProcessId();
  known.arguments = start.GetActorProcessArguments();
  known.auid = start.GetActorAuid();
  known.uid = start.GetActorUserId();
  known.euid = start.GetActorEuid();
  known.creation_time = start.GetTimestamp();
  known.cwd = start.GetCwd();
  if (const common::ImageInfo* image = start.GetImage()) known.image = *image;
  if (start.HasSecondaryImage()) known.secondary_image = *start.GetSecondaryImage();
  return known;
}

ProcessInfo::ProcessInfo(std::unique_ptr<edr::Event> start, OnCacheFull callback)
    : ProcessInfo(Describe(*start), std::move(callback)) {
  AddEvent(std::move(start));
}

ProcessInfo::ProcessInfo(Description description, OnCacheFull callback)
    : common::ProcessInfo(description.pid, description.ppid),
      known_(std::move(description)),
      entry_bytes_(EstimateEntry(known_)),
      on_cache_full_(std::move(callback)) {}

ProcessInfo::~ProcessInfo() {
  CountOut();
}

std::size_t ProcessInfo::EstimateEntry(const Description& known) {
  const std::size_t secondary = known.secondary_image ? internal::HeapOf(*known.secondary_image) : 0;
  return sizeof(ProcessInfo) + internal::HeapOf(known.arguments) + internal::HeapOf(known.cwd) +
         internal::HeapOf(known.image) + secondary;
}

void ProcessInfo::Update(const edr::Event& /*event*/) {
  throw common::ProcessInfoException("Update is not implemented");
}

void ProcessInfo::AddEvent(std::unique_ptr<edr::Event> event) {
  const std::size_t bytes = internal::EstimateHeap(*event);
  bool is_full = false;
  {
    const std::lock_guard lock(mutex_);
    events_.push_back(std::move(event));
    Account(bytes);
    is_full = events_.size() == kMaxCachedEvents;
  }
  if (is_full && on_cache_full_) on_cache_full_(GetPid());
}

std::vector<std::unique_ptr<edr::Event>> ProcessInfo::TakeEvents() {
  const std::lock_guard lock(mutex_);
  return Release();
}

void ProcessInfo::TakeEventsOf(ProcessInfo& predecessor) {
  std::vector<std::unique_ptr<edr::Event>> earlier;
  std::size_t bytes = 0;
  {
    const std::lock_guard lock(predecessor.mutex_);
    bytes = predecessor.cached_bytes_;
    earlier = predecessor.Release();
  }
  // At the bound it has called back itself.
  bool is_full = earlier.size() < kMaxCachedEvents;
  {
    const std::lock_guard lock(mutex_);
    events_.insert(events_.begin(), std::make_move_iterator(earlier.begin()), std::make_move_iterator(earlier.end()));
    Account(bytes);
    is_full = is_full && events_.size() >= kMaxCachedEvents;
  }
  if (is_full && on_cache_full_) on_cache_full_(GetPid());
}

const edr::Event& ProcessInfo::GetLastEvent() const {
  const std::lock_guard lock(mutex_);
  if (events_.empty()) {
    throw common::ProcessInfoException("Failed to get last event for process with pid " + std::to_string(GetPid()));
  }
  return *events_.back();
}

bool ProcessInfo::HasEvents() const {
  const std::lock_guard lock(mutex_);
  return !events_.empty();
}

std::size_t ProcessInfo::GetCachedBytes() const {
  const std::lock_guard lock(mutex_);
  return cached_bytes_;
}

void ProcessInfo::CountIn(std::shared_ptr<Usage> usage) {
  const std::lock_guard lock(mutex_);
  CountOut();
  usage_ = std::move(usage);
  if (!usage_) return;
  usage_->events += cached_bytes_;
  usage_->entries += entry_bytes_;
}

void ProcessInfo::CountOut() {
  if (!usage_) return;
  usage_->events -= cached_bytes_;
  usage_->entries -= entry_bytes_;
}

void ProcessInfo::AddTag(const std::string& key, const std::string& value) {
  const std::lock_guard lock(mutex_);
  const auto tag = tags_.find(key);
  if (tag == tags_.end()) {
    tags_.emplace(key, value);
  } else {
    tag->second = value;
  }
}

void ProcessInfo::RemoveTag(const std::string& key) {
  {
    const std::lock_guard lock(mutex_);
    if (tags_.erase(key) != 0) return;
  }
  ZLOG_ERROR("Failed to remove tag " << key << " from process " << GetPid());
}

bool ProcessInfo::HasTag(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  return tags_.count(key) != 0;
}

std::optional<std::string> ProcessInfo::FindTag(const std::string& key) const {
  const std::lock_guard lock(mutex_);
  const auto found = tags_.find(key);
  if (found == tags_.end()) return std::nullopt;
  return found->second;
}

ProcessInfo::Tags ProcessInfo::GetTags() const {
  const std::lock_guard lock(mutex_);
  return tags_;
}

std::int64_t ProcessInfo::GetScore() const {
  const std::lock_guard lock(mutex_);
  return score_;
}

void ProcessInfo::AddScore(std::int64_t points) {
  const std::lock_guard lock(mutex_);
  // A score that is out of reach stays there.
  if (__builtin_add_overflow(score_, points, &score_)) {
    score_ = points > 0 ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
  }
}

const std::string* ProcessInfo::FindHeuristicsKey() const {
  const std::lock_guard lock(mutex_);
  return heuristics_key_ ? &*heuristics_key_ : nullptr;
}

void ProcessInfo::SetHeuristicsKey(std::string key) {
  const std::lock_guard lock(mutex_);
  if (!heuristics_key_) heuristics_key_ = std::move(key);
}

void ProcessInfo::Account(std::size_t bytes) {
  cached_bytes_ += bytes;
  if (usage_) usage_->events += bytes;
}

std::vector<std::unique_ptr<edr::Event>> ProcessInfo::Release() {
  if (usage_) usage_->events -= cached_bytes_;
  cached_bytes_ = 0;
  return std::exchange(events_, {});
}

}  // namespace zagent::ioc
