#pragma once

#include <string_view>
#include <vector>

#include "src/edr/FilterCriteria.h"

namespace zagent::ioc::internal {

// Whether a pattern matches the path of the event's file, or of the program (or of its script) that a process event is
// about. No other event matches.
//
// A rename has two paths: in an inclusion group either of them may match, in an exclusion group both must, so that
// nothing escapes by moving to where nobody looks.
class FileCriteria final : public edr::FilterCriteria {
 public:
  FileCriteria(Group group, std::vector<edr::PathGlob> patterns);

  [[nodiscard]] bool Match(const edr::Event& event) const override;

 private:
  [[nodiscard]] bool MatchesProgram(const edr::Event& event) const;
  [[nodiscard]] bool MatchesFile(const edr::Event& event) const;
};

}  // namespace zagent::ioc::internal
