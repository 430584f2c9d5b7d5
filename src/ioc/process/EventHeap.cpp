#include "src/ioc/process/EventHeap.h"

#include <algorithm>
#include <utility>

namespace zagent::ioc::internal {

void EventHeap::Push(std::unique_ptr<edr::Event> event) {
  Entries& entries = event->GetId() != 0 ? numbered_ : made_up_;
  entries.push_back({std::move(event), arrivals_++});
  std::push_heap(entries.begin(), entries.end(), IsLater);
}

std::unique_ptr<edr::Event> EventHeap::Pop() {
  if (IsEmpty()) return nullptr;
  const bool is_made_up = numbered_.empty() || (!made_up_.empty() && IsLater(numbered_.front(), made_up_.front()));
  Entries& entries = is_made_up ? made_up_ : numbered_;
  std::pop_heap(entries.begin(), entries.end(), IsLater);
  std::unique_ptr<edr::Event> earliest = std::move(entries.back().event);
  entries.pop_back();
  return earliest;
}

bool EventHeap::IsLater(const Entry& one, const Entry& other) {
  const edr::Event& a = *one.event;
  const edr::Event& b = *other.event;
  if (a.GetTimestamp() != b.GetTimestamp()) return a.GetTimestamp() > b.GetTimestamp();
  const std::uint32_t a_id = a.GetId();
  const std::uint32_t b_id = b.GetId();
  if (a_id != 0 && b_id != 0 && a_id != b_id) return a_id > b_id;
  if (a.GetActorProcessId() != b.GetActorProcessId()) return a.GetActorProcessId() > b.GetActorProcessId();
  if (a.GetType() != b.GetType()) return a.GetType() > b.GetType();
  return one.arrival > other.arrival;
}

}  // namespace zagent::ioc::internal
