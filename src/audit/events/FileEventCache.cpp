#include "src/audit/events/FileEventCache.h"

#include <algorithm>
#include <utility>

#include "common/src/util/Log.h"

namespace zagent::audit::internal {

void FileEventCache::Add(std::unique_ptr<edr::Event> event) {
  const std::int64_t timestamp = event->GetTimestamp();
  Queue& queue = queues_[event->GetActorProcessId()];
  if (queue.empty()) oldest_front_ = std::min(oldest_front_, timestamp);
  queue.push_back(std::move(event));
  crowded_ = crowded_ || queue.size() > max_events_;
  ++size_;
}

FileEventCache::Events FileEventCache::Expire() {
  const std::int64_t limit = common::util::ToNanoseconds(clock_.Now()) - max_age_.count();
  Events due;
  if (crowded_ || oldest_front_ < limit) due = TakeDue(limit);
  ZLOG_DEBUG("FileEventCache size: " << queues_.size() << " processes, " << size_ << " events");
  return due;
}

FileEventCache::Events FileEventCache::TakeDue(std::int64_t limit) {
  Events due;
  oldest_front_ = std::numeric_limits<std::int64_t>::max();
  crowded_ = false;
  for (auto entry = queues_.begin(); entry != queues_.end();) {
    Queue& queue = entry->second;
    while (!queue.empty() && (queue.size() > max_events_ || queue.front()->GetTimestamp() < limit)) {
      due.push_back(std::move(queue.front()));
      queue.pop_front();
    }
    if (queue.empty()) {
      entry = queues_.erase(entry);
      continue;
    }
    oldest_front_ = std::min(oldest_front_, queue.front()->GetTimestamp());
    ++entry;
  }
  size_ -= due.size();
  // Stable: events of one process and one second stay in the order in which they came.
  std::stable_sort(due.begin(), due.end(),
                   [](const auto& left, const auto& right) { return left->GetTimestamp() < right->GetTimestamp(); });
  return due;
}

FileEventCache::Events FileEventCache::Flush(std::int32_t pid) {
  const auto entry = queues_.find(pid);
  if (entry == queues_.end()) return {};
  Events events(std::make_move_iterator(entry->second.begin()), std::make_move_iterator(entry->second.end()));
  queues_.erase(entry);
  size_ -= events.size();
  return events;
}

}  // namespace zagent::audit::internal
