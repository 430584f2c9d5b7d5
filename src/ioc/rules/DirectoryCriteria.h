#pragma once

#include <string_view>
#include <vector>

#include "src/edr/FilterCriteria.h"

namespace zagent::ioc::internal {

// Whether a pattern, or the pattern with "/*" behind it, matches the folder in which the event's file lies, or the
// folder that the event is about. No other event matches. Renames as with FileCriteria.
class DirectoryCriteria final : public edr::FilterCriteria {
 public:
  DirectoryCriteria(Group group, std::vector<edr::PathGlob> patterns);

  [[nodiscard]] bool Match(const edr::Event& event) const override;

 private:
  [[nodiscard]] bool MatchesFolderOf(std::string_view path, edr::ObjectType type) const;

  std::vector<edr::PathGlob> below_;  // the patterns with "/*" behind them
};

}  // namespace zagent::ioc::internal
