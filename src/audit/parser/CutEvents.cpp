#include "src/audit/parser/CutEvents.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace zagent::audit::internal {
namespace {

bool EndsEvent(std::string_view record) {
  if (record.starts_with("node=")) record.remove_prefix(std::min(record.find(' ') + 1, record.size()));
  return record.starts_with("type=PROCTITLE ") || record.starts_with("type=EOE ");
}

// Records behind the end of an event would be another event.
std::string WithEndsLast(std::string_view records) {
  std::string others;
  std::string ends;
  while (!records.empty()) {
    const std::string_view record = records.substr(0, std::min(records.find('\n'), records.size() - 1) + 1);
    records.remove_prefix(record.size());
    (EndsEvent(record) ? ends : others).append(record);
  }
  return others + ends;
}

}  // namespace

std::string CutEvents::Join(Part part) {
  ++part_count_;
  const auto is_other = [&part](const Part& kept) { return kept.event != part.event; };
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
  return WithEndsLast(whole);
}

void CutEvents::Keep(Part part) {
  bytes_ += part.records.size();
  const std::int64_t oldest = part.timestamp - kKeptTime;
  parts_.push_back(std::move(part));
  while (!parts_.empty() && (parts_.size() > kMostParts || bytes_ > kMostBytes || parts_.front().timestamp < oldest)) {
    DropOldest();
  }
}

void CutEvents::GiveUp() {
  while (!parts_.empty()) DropOldest();
}

void CutEvents::DropOldest() {
  if (parts_.front().has_call) counters_.Add(IntakeCounters::Reason::NotBuilt);
  bytes_ -= parts_.front().records.size();
  parts_.pop_front();
}

}  // namespace zagent::audit::internal
