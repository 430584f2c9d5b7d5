#pragma once

#include <string>
#include <vector>

#include "src/edr/FilterCriteria.h"

namespace zagent::edr {

// Whether the actor's user (of its uid) is one of a list of names. Without names every event matches.
class UserCriteria final : public FilterCriteria {
 public:
  UserCriteria(Group group, std::vector<std::string> names);

  [[nodiscard]] bool Match(const Event& event) const override;

 private:
  const std::vector<std::string> names_;
};

}  // namespace zagent::edr
