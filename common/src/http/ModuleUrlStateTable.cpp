#include "common/src/http/ModuleUrlStateTable.h"

#include "common/src/util/Fnv.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr std::uint64_t kHoursOfADay = 24;

std::chrono::hours OffsetOf(const std::string& agent_id) {
  const auto hash = util::Fnv1a64(reinterpret_cast<const unsigned char*>(agent_id.data()), agent_id.size());
  return std::chrono::hours(hash % kHoursOfADay);
}

}  // namespace

const char* ToString(ModuleUrlStateTable::UrlState state) {
  switch (state) {
    case ModuleUrlStateTable::UrlState::Auth:
      return "AUTH";
    case ModuleUrlStateTable::UrlState::Unauth:
      return "UNAUTH";
    case ModuleUrlStateTable::UrlState::Unknown:
      break;
  }
  return "UNKNOWN";
}

ModuleUrlStateTable::ModuleUrlStateTable(const std::string& agent_id, const util::Clock& clock)
    : check_offset_(OffsetOf(agent_id)), clock_(clock) {}

bool ModuleUrlStateTable::IsAuthDue(const std::string& module) const {
  const std::lock_guard lock(mutex_);
  const auto entry = modules_.find(module);
  if (entry == modules_.end() || entry->second.state != UrlState::Unauth) return true;
  ZLOG_DEBUG("Module: " << module << ", Upgrade check duration offset = " << check_offset_.count()
                        << " hrs, min threshold upgrade check duration = " << kMinThreshold.count() << " hrs");
  return clock_.SteadyNow() - entry->second.since >= kMinThreshold + check_offset_;
}

void ModuleUrlStateTable::Set(const std::string& module, UrlState state) {
  const std::lock_guard lock(mutex_);
  Entry& entry = modules_[module];
  entry.since = clock_.SteadyNow();
  if (entry.state == state) return;
  ZLOG_INFO("Module: " << module << " Url State updated"
                       << ", Old Url State: " << ToString(entry.state) << ", New Url State: " << ToString(state));
  entry.state = state;
}

ModuleUrlStateTable::UrlState ModuleUrlStateTable::Get(const std::string& module) const {
  const std::lock_guard lock(mutex_);
  const auto entry = modules_.find(module);
  return entry == modules_.end() ? UrlState::Unknown : entry->second.state;
}

}  // namespace zagent::common
