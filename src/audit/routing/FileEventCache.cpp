#include "src/audit/routing/FileEventCache.h"

#include <algorithm>
#include <utility>

#include "common/src/util/Log.h"
#include "src/edr/process/EventBytes.h"

namespace zagent::audit::internal {
namespace {

// Audit's clock and this one are the same, but an event may be looked at before a small correction of it.
constexpr std::chrono::nanoseconds kFutureSlack = std::chrono::seconds(5);

}  // namespace

FileEventCache::Front FileEventCache::FrontOf(std::int32_t pid, const Queue& queue) {
  return {queue.front().event->GetTimestamp(), queue.front().number, pid};
}

FileEventCache::Queue& FileEventCache::QueueOf(std::int32_t pid) {
  if (!spare_queue_) return queues_[pid];
  spare_queue_.key() = pid;
  auto entered = queues_.insert(std::move(spare_queue_));
  spare_queue_ = std::move(entered.node);  // of a process that has one
  return entered.position->second;
}

void FileEventCache::Enter(std::int32_t pid, const Queue& queue) {
  const Front front = FrontOf(pid, queue);
  if (spare_front_) {
    spare_front_.value() = front;
    fronts_.insert(std::move(spare_front_));
  } else {
    fronts_.insert(front);
  }
  if (queue.size() > limits_.max_process_events) crowded_.insert(front);
}

void FileEventCache::Leave(std::int32_t pid, const Queue& queue) {
  const Front front = FrontOf(pid, queue);
  spare_front_ = fronts_.extract(front);
  crowded_.erase(front);
}

void FileEventCache::Add(std::unique_ptr<edr::Event> event, std::uint64_t more_bytes) {
  const std::int32_t pid = event->GetActorProcessId();
  Queue& queue = QueueOf(pid);
  const std::uint64_t bytes = edr::EstimateBytes(*event) + more_bytes;
  queue.push_back({next_number_++, std::move(event), bytes});
  ++size_;
  bytes_ += bytes;
  if (queue.size() == 1) {
    Enter(pid, queue);
  } else if (queue.size() == limits_.max_process_events + 1) {
    crowded_.insert(FrontOf(pid, queue));
  }
  TellOfTheBound();
}

bool FileEventCache::IsAtTheBound() const {
  return size_ > limits_.max_events || bytes_ > limits_.max_events * edr::kOrdinaryEventBytes;
}

// One line each time the bound is reached; the next one only after half of it was free again.
void FileEventCache::TellOfTheBound() {
  if (IsAtTheBound() && !bound_told_) {
    ZLOG_WARNING("FileEventCache: " << std::min<std::size_t>(size_, limits_.max_events)
                                    << " file events rest: the oldest are delivered early");
    bound_told_ = true;
  } else if (size_ <= limits_.max_events / 2 && bytes_ <= limits_.max_events * edr::kOrdinaryEventBytes / 2) {
    bound_told_ = false;
  }
}

const FileEventCache::Front* FileEventCache::FindDue() const {
  if (fronts_.empty()) return nullptr;
  const std::int64_t now = common::util::ToNanoseconds(clock_.Now());
  const Front& oldest = *fronts_.begin();
  if (IsAtTheBound() || oldest.timestamp < now - limits_.max_age.count()) return &oldest;
  if (!crowded_.empty()) return &*crowded_.begin();
  constexpr Front kLast{0, std::numeric_limits<std::uint64_t>::max(), std::numeric_limits<std::int32_t>::max()};
  const auto future = fronts_.upper_bound({now + kFutureSlack.count(), kLast.number, kLast.pid});
  return future == fronts_.end() ? nullptr : &*future;
}

bool FileEventCache::HasDue() const {
  return FindDue() != nullptr;
}

FileEventCache::Events FileEventCache::Expire(std::size_t portion) {
  Events due;
  while (due.size() < portion) {
    const Front* front = FindDue();
    if (front == nullptr) break;
    due.push_back(Take(*front));
  }
  ZLOG_DEBUG("FileEventCache size: " << queues_.size() << " processes, " << size_ << " events");
  return due;
}

std::unique_ptr<edr::Event> FileEventCache::TakeOldest() {
  return Take(*fronts_.begin());
}

std::unique_ptr<edr::Event> FileEventCache::Take(Front front) {
  const auto entry = queues_.find(front.pid);
  Queue& queue = entry->second;
  Leave(front.pid, queue);
  std::unique_ptr<edr::Event> event = std::move(queue.front().event);
  bytes_ -= queue.front().bytes;
  queue.pop_front();
  --size_;
  if (queue.empty()) {
    spare_queue_ = queues_.extract(entry);
  } else {
    Enter(front.pid, queue);
  }
  TellOfTheBound();
  return event;
}

void FileEventCache::Clear() {
  fronts_.clear();
  crowded_.clear();
  queues_.clear();
  size_ = 0;
  bytes_ = 0;
  TellOfTheBound();
}

FileEventCache::Events FileEventCache::Flush(std::int32_t pid) {
  const auto entry = queues_.find(pid);
  if (entry == queues_.end()) return {};
  Leave(pid, entry->second);
  Events events;
  events.reserve(entry->second.size());
  for (Entry& resting : entry->second) {
    bytes_ -= resting.bytes;
    events.push_back(std::move(resting.event));
  }
  queues_.erase(entry);
  size_ -= events.size();
  TellOfTheBound();
  return events;
}

}  // namespace zagent::audit::internal
