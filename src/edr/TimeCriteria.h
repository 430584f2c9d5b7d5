#pragma once

#include <optional>
#include <string>

#include "src/edr/FilterCriteria.h"

namespace zagent::edr {

// Whether the event's time of day, in UTC, lies within a span; both ends belong to it. Without a span every event
// matches.
class TimeCriteria final : public FilterCriteria {
 public:
  explicit TimeCriteria(Group group) : FilterCriteria(group) {}
  // Both in the form "%H:%M:%S". Throws FilterCriteriaException.
  TimeCriteria(Group group, const std::string& start, const std::string& end);

  [[nodiscard]] bool Match(const Event& event) const override;

 private:
  struct Span {
    int start;  // seconds of the day
    int end;
  };
  static Span ParseSpan(const std::string& start, const std::string& end);

  const std::optional<Span> span_;
};

}  // namespace zagent::edr
