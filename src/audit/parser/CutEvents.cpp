#include "src/audit/parser/CutEvents.h"

#include <algorithm>
#include <utility>

namespace zagent::audit::internal {

CutEvents::~CutEvents() {
  while (!parts_.empty()) DropOldest();
}

std::string CutEvents::Join(Part part) {
  const auto is_other = [&part](const Part& kept) { return kept.id != part.id || kept.timestamp != part.timestamp; };
  const auto of_this_event = std::stable_partition(parts_.begin(), parts_.end(), is_other);
  bool has_call = part.has_call;
  for (auto kept = of_this_event; kept != parts_.end(); ++kept) has_call = has_call || kept->has_call;
  if (!has_call || of_this_event == parts_.end()) {
    Keep(std::move(part));
    return {};
  }
  std::string whole;
  const auto append = [&whole](const Part& joined) {
    joined.has_call ? whole.insert(0, joined.records) : whole.append(joined.records);
  };
  for (auto kept = of_this_event; kept != parts_.end(); ++kept) {
    bytes_ -= kept->records.size();
    append(*kept);
  }
  append(part);
  parts_.erase(of_this_event, parts_.end());
  if (IsProgress(part, whole.size())) return whole;
  counters_.Add(IntakeCounters::Reason::NotBuilt);
  return {};
}

bool CutEvents::IsProgress(const Part& part, std::size_t bytes) {
  auto* found = std::find_if(joined_.begin(), joined_.end(), [&part](const Joined& joined) {
    return joined.id == part.id && joined.timestamp == part.timestamp;
  });
  if (found == joined_.end()) {
    found = &joined_.at(oldest_joined_);
    oldest_joined_ = (oldest_joined_ + 1) % joined_.size();
    *found = {part.id, part.timestamp, 0};
  }
  if (bytes <= found->bytes) return false;
  found->bytes = bytes;
  return true;
}

void CutEvents::Keep(Part part) {
  bytes_ += part.records.size();
  const std::int64_t oldest = part.timestamp - kKeptTime;
  parts_.push_back(std::move(part));
  while (parts_.size() > 1 &&
         (parts_.size() > kMostParts || bytes_ > kMostBytes || parts_.front().timestamp < oldest)) {
    DropOldest();
  }
}

void CutEvents::DropOldest() {
  if (parts_.front().has_call) counters_.Add(IntakeCounters::Reason::NotBuilt);
  bytes_ -= parts_.front().records.size();
  parts_.pop_front();
}

}  // namespace zagent::audit::internal
