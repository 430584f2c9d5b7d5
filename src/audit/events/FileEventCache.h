#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <unordered_map>
#include <vector>

#include "common/src/util/Clock.h"
#include "src/edr/Event.h"

namespace zagent::audit::internal {

// Lets file events rest until the file has settled. One thread.
//
// Bound: `max_events` a process and `max_age`; at either one the oldest events leave with the next Expire.
class FileEventCache {
 public:
  using Events = std::vector<std::unique_ptr<edr::Event>>;

  static constexpr std::size_t kMaxEvents = 1000;
  static constexpr std::chrono::seconds kMaxAge{30};

  explicit FileEventCache(common::util::Clock& clock = common::util::Clock::Real(), std::size_t max_events = kMaxEvents,
                          std::chrono::nanoseconds max_age = kMaxAge)
      : clock_(clock), max_events_(max_events), max_age_(max_age) {}

  // Appends to the queue of the event's process. The event must not be null.
  void Add(std::unique_ptr<edr::Event> event);

  // Takes out what is due, oldest first. Cheap while nothing can be due: made to be called for every event.
  [[nodiscard]] Events Expire();

  // Takes out everything of one process, in order.
  [[nodiscard]] Events Flush(std::int32_t pid);

  // Events in the cache.
  [[nodiscard]] std::size_t GetSize() const { return size_; }
  [[nodiscard]] std::size_t GetProcessCount() const { return queues_.size(); }

 private:
  using Queue = std::deque<std::unique_ptr<edr::Event>>;

  Events TakeDue(std::int64_t limit);

  common::util::Clock& clock_;
  std::size_t max_events_;
  std::chrono::nanoseconds max_age_;
  std::unordered_map<std::int32_t, Queue> queues_;
  std::size_t size_ = 0;
  // No event at the front of a queue is older.
  std::int64_t oldest_front_ = std::numeric_limits<std::int64_t>::max();
  bool crowded_ = false;  // some queue may hold more than max_events_
};

}  // namespace zagent::audit::internal
