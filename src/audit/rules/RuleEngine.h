#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "common/src/util/Clock.h"
#include "src/audit/channels/AuditNetlink.h"
#include "src/edr/EventRuleEngine.h"
#include "src/edr/Trie.h"
#include "src/edr/process/ProcessTree.h"

namespace zagent::audit {

// edr::EventRuleEngine on the Linux audit subsystem: translates rules into kernel rules, keeps the program's own
// family of processes out of the stream, and routes events to the handlers of the tags whose rules match.
//
// One mutex guards the tables, and the kernel calls run under it, which also serialises libaudit's global state. Every
// operation that talks to the kernel opens a netlink socket of its own. Handlers are called outside the mutex.
class RuleEngine final : public edr::EventRuleEngine {
 public:
  struct Settings {
    std::int32_t agent_pid;
    std::string agent_path;             // of the parent agent's executable
    std::uint32_t audit_backlog_limit;  // records; the kernel's limit is raised to it, never lowered
    std::string agent_install_path;
    std::set<std::string> sibling_names;  // file names of the product family's processes
  };

  // Raises the backlog limit, removes what an earlier run left in the kernel, installs the exclusions. Throws
  // edr::RuleEngineException "Failed to open audit socket".
  RuleEngine(AuditNetlink& netlink, common::ProcessTree& process_tree, Settings settings,
             common::util::Clock& clock = common::util::Clock::Real());
  // Leaves the kernel without any rule of the program.
  ~RuleEngine() override;

  void AddRules(const std::string& tag, Rules rules) override;
  void Invalidate() override;
  void ProcessEvent(std::unique_ptr<edr::Event> event) override;
  void OnIdle() override;

  // The parent agent's pid or path has changed: moves its exclusion rules. Failures are logged.
  void UpdateExclusions(std::int32_t agent_pid, const std::string& agent_path);

  // The product family as it is shipped.
  static std::set<std::string> DefaultSiblingNames();
};

}  // namespace zagent::audit
