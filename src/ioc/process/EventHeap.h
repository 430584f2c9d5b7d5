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
class EventHeap {
 public:
  void Push(std::unique_ptr<edr::Event> event);
  // The earliest event; null when there is none.
  [[nodiscard]] std::unique_ptr<edr::Event> Pop();
  [[nodiscard]] bool IsEmpty() const { return entries_.empty(); }
  [[nodiscard]] std::size_t GetSize() const { return entries_.size(); }

 private:
  struct Entry {
    std::unique_ptr<edr::Event> event;
    std::uint64_t arrival;
  };
  static bool IsLater(const Entry& one, const Entry& other);

  std::vector<Entry> entries_;
  std::uint64_t arrivals_ = 0;
};

}  // namespace zagent::ioc::internal
