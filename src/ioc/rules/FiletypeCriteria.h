#pragma once

#include <string>
#include <vector>

#include "src/edr/FilterCriteria.h"

namespace zagent::ioc::internal {

// Whether a pattern occurs, in whatever case, in what libmagic says of the event's file. Asking for that reads the
// beginning of the file.
class FiletypeCriteria final : public edr::FilterCriteria {
 public:
  // An array of texts that are not empty. Throws edr::FilterCriteriaException.
  explicit FiletypeCriteria(const rapidjson::Value& json);

  // Throws edr::FilterCriteriaException for events that are of no file, and for files that nothing is known of.
  [[nodiscard]] bool Match(const edr::Event& event) const override;

 private:
  static std::vector<edr::PathGlob> ParseTypes(const rapidjson::Value& json);
};

}  // namespace zagent::ioc::internal
