#include "src/ioc/process/EventHeap.h"

#include <algorithm>
#include <utility>

namespace zagent::ioc::internal {

void EventHeap::Push(std::unique_ptr<edr::Event> event) {
  entries_.push_back({std::move(event), arrivals_++});
  std::push_heap(entries_.begin(), entries_.end(), IsLater);
}

std::unique_ptr<edr::Event> EventHeap::Pop() {
  if (entries_.empty()) return nullptr;
  std::pop_heap(entries_.begin(), entries_.end(), IsLater);
  std::unique_ptr<edr::Event> earliest = std::move(entries_.back().event);
  entries_.pop_back();
  return earliest;
}

bool EventHeap::IsLater(const Entry& one, const Entry& other) {
  const edr::Event& a = *one.event;
  const edr::Event& b = *other.event;
  if (a.GetTimestamp() != b.GetTimestamp()) return a.GetTimestamp() > b.GetTimestamp();
  // An event that was made up has no serial number.
  const std::uint32_t a_id = a.GetId();
  const std::uint32_t b_id = b.GetId();
  if (a_id != 0 && b_id != 0 && a_id != b_id) return a_id > b_id;
  if (a.GetActorProcessId() != b.GetActorProcessId()) return a.GetActorProcessId() > b.GetActorProcessId();
  if (a.GetType() != b.GetType()) return a.GetType() > b.GetType();
  return one.arrival > other.arrival;
}

}  // namespace zagent::ioc::internal
