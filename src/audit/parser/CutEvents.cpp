#include "src/audit/parser/CutEvents.h"

#include <algorithm>
#include <iterator>
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
  std::vector<Part> others = TakeOf(part.event);
  const bool has_call =
      part.has_call || std::any_of(others.begin(), others.end(), [](const Part& kept) { return kept.has_call; });
  if (!has_call || others.empty()) {
    std::move(others.begin(), others.end(), std::back_inserter(parts_));
    Keep(std::move(part));
    return {};
  }
  std::string whole;
  const auto append = [&whole](const Part& joined) {
    joined.has_call ? whole.insert(0, joined.records) : whole.append(joined.records);
  };
  for (const Part& kept : others) {
    bytes_ -= kept.records.size();
    append(kept);
  }
  append(part);
  return WithEndsLast(whole);
}

std::vector<CutEvents::Part> CutEvents::TakeOf(const std::string& event) {
  std::vector<Part> taken;
  for (auto kept = parts_.begin(); kept != parts_.end();) {
    if (kept->event != event) {
      ++kept;
      continue;
    }
    taken.push_back(std::move(*kept));
    kept = parts_.erase(kept);
  }
  return taken;
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
