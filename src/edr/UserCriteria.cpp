#include "src/edr/UserCriteria.h"

#include <algorithm>
#include <utility>

#include "common/src/util/Log.h"

namespace zagent::edr {

UserCriteria::UserCriteria(Group group, std::vector<std::string> names)
    : FilterCriteria(group), names_(std::move(names)) {
  ZLOG_DEBUG("Setting Actor Users Filters");
}

bool UserCriteria::Match(const Event& event) const {
  ZLOG_DEBUG("Matching Actor User Criteria");
  return names_.empty() || std::find(names_.begin(), names_.end(), event.GetActorUserName()) != names_.end();
}

}  // namespace zagent::edr
