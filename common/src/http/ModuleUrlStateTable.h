#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <string>

#include "common/src/util/Clock.h"

namespace zagent::common {

// Which modules the platform takes under their authenticated URLs. One table for all uploads of the process;
// thread-safe. A module that nobody has tried counts as authenticated.
class ModuleUrlStateTable {
 public:
  enum class UrlState { Unknown, Auth, Unauth };

  // A module on the plain URL stays there for at least so long.
  static constexpr std::chrono::hours kMinThreshold{24};

  // The agent's id spreads the checks of many agents over a day: each waits for its own offset of 0 to 23 hours beyond
  // the threshold. Logs nothing but changes.
  explicit ModuleUrlStateTable(const std::string& agent_id, const util::Clock& clock = util::Clock::Real());

  // True when the module's next attempt belongs on the authenticated URL: it is not on the plain one, or it has been
  // there so long that the check is due.
  [[nodiscard]] bool IsAuthDue(const std::string& module) const;
  // A change logs "Module: <name> Url State updated, Old Url State: <old>, New Url State: <new>". Unauth begins the
  // time until the next check anew.
  void Set(const std::string& module, UrlState state);
  [[nodiscard]] UrlState Get(const std::string& module) const;

  [[nodiscard]] std::chrono::hours GetCheckOffset() const { return check_offset_; }

 private:
  struct Entry {
    UrlState state = UrlState::Unknown;
    util::Clock::SteadyTime since;
  };

  const std::chrono::hours check_offset_;
  const util::Clock& clock_;
  mutable std::mutex mutex_;
  std::map<std::string, Entry> modules_;  // the rows of a URL table, so a few
};

// "UNKNOWN", "AUTH", "UNAUTH".
const char* ToString(ModuleUrlStateTable::UrlState state);

}  // namespace zagent::common
