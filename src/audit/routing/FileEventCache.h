#pragma once

#include <atomic>
#include <chrono>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <set>
#include <unordered_map>
#include <vector>

#include "common/src/util/Clock.h"
#include "src/edr/Event.h"

namespace zagent::audit::internal {

// Lets file events rest until the file has settled. One thread, but for GetSize and GetBytes.
//
// The events of one process leave in the order in which they came, and of those that stand first the oldest leaves
// first, in portions of any size: what happened to one object keeps its order.
//
// Bounds: `max_age`, `max_process_events` a process and `max_events` in all, or as many bytes as so many ordinary
// events have (edr::EstimateBytes). At any of them the oldest events are due early. An event from more than 5 s in the
// future is due as well: the wall clock was set back, and waiting for it would hold the event for as long.
class FileEventCache {
 public:
  using Events = std::vector<std::unique_ptr<edr::Event>>;

  struct Limits {
    std::size_t max_events = 100'000;
    std::size_t max_process_events = 1'000;
    std::chrono::nanoseconds max_age = std::chrono::seconds(30);
  };

  FileEventCache(common::util::Clock& clock, Limits limits) : clock_(clock), limits_(limits) {}

  // Appends to the queue of the event's process. The event must not be null. `more_bytes` are held elsewhere as long as
  // it rests, and count as its own.
  void Add(std::unique_ptr<edr::Event> event, std::uint64_t more_bytes = 0);

  // Takes out what is due, oldest first, at most `portion` events. Cheap while nothing is due: made to be called for
  // every event.
  [[nodiscard]] Events Expire(std::size_t portion = std::numeric_limits<std::size_t>::max());
  [[nodiscard]] bool HasDue() const;

  // Takes out everything of one process, in order.
  [[nodiscard]] Events Flush(std::int32_t pid);

  // Takes out the event that would be due first; the cache is not empty.
  [[nodiscard]] std::unique_ptr<edr::Event> TakeOldest();
  // Drops everything.
  void Clear();

  // Events in the cache. From any thread.
  [[nodiscard]] std::size_t GetSize() const { return size_; }
  // What they hold (edr::EstimateBytes). From any thread.
  [[nodiscard]] std::uint64_t GetBytes() const { return bytes_; }
  [[nodiscard]] std::size_t GetProcessCount() const { return queues_.size(); }

 private:
  struct Entry {
    std::uint64_t number;  // counts all events of the cache, in the order in which they came
    std::unique_ptr<edr::Event> event;
    std::uint64_t bytes;
  };
  using Queue = std::deque<Entry>;
  // Where the first event of a process stands among those of the others.
  struct Front {
    std::int64_t timestamp;
    std::uint64_t number;
    std::int32_t pid;
    auto operator<=>(const Front&) const = default;
  };
  using Fronts = std::set<Front>;

  static Front FrontOf(std::int32_t pid, const Queue& queue);
  // The front that leaves next; null when none is due.
  [[nodiscard]] const Front* FindDue() const;
  std::unique_ptr<edr::Event> Take(Front front);
  Queue& QueueOf(std::int32_t pid);
  void Enter(std::int32_t pid, const Queue& queue);
  void Leave(std::int32_t pid, const Queue& queue);
  [[nodiscard]] bool IsAtTheBound() const;
  void TellOfTheBound();

  common::util::Clock& clock_;
  Limits limits_;
  using Queues = std::unordered_map<std::int32_t, Queue>;

  Queues queues_;  // none is empty
  Fronts fronts_;  // of all queues
  // The memory of the one that left last, for the next: a process that does one thing at a time has none most of the
  // time.
  Queues::node_type spare_queue_;
  Fronts::node_type spare_front_;
  Fronts crowded_;  // of those that are longer than max_process_events
  std::atomic<std::size_t> size_{0};
  std::atomic<std::uint64_t> bytes_{0};
  std::uint64_t next_number_ = 0;
  bool bound_told_ = false;
};

}  // namespace zagent::audit::internal
