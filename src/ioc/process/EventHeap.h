#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "src/edr/Event.h"

namespace zagent::ioc::internal {

// Events that are judged in one go, the earliest first: by their time, and where that is the same, by the serial number
// when both have one, then by the actor's pid, then by the type. What is alike in all of that leaves in the order in
// which it came.
//
// Taken two by two that can be a ring, when some have a serial number and others have not. So each of the two kinds is
// in an order of its own, and of the two that are first in theirs the lower pid leaves first.
class EventHeap {
 public:
  void Push(std::unique_ptr<edr::Event> event);
  // The earliest event; null when there is none.
  [[nodiscard]] std::unique_ptr<edr::Event> Pop();
  [[nodiscard]] bool IsEmpty() const { return numbered_.empty() && made_up_.empty(); }
  [[nodiscard]] std::size_t GetSize() const { return numbered_.size() + made_up_.size(); }

 private:
  struct Entry {
    std::unique_ptr<edr::Event> event;
    std::uint64_t arrival;
  };
  using Entries = std::vector<Entry>;
  static bool IsLater(const Entry& one, const Entry& other);

  Entries numbered_;
  Entries made_up_;  // nobody has given them a serial number
  std::uint64_t arrivals_ = 0;
};

}  // namespace zagent::ioc::internal
