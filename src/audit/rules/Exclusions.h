#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "src/audit/rules/AuditSocket.h"

namespace zagent::audit::internal {

// What the kernel shall not report: the program's own process and the parent agent, the creation of threads, and
// end-of-event records. Failures are logged; an exclusion that could not be added is tried again by the next call.
//
// The caller serialises.
class Exclusions {
 public:
  // Enters the two processes; talks to nobody. The agent goes by the file name of its executable.
  Exclusions(std::int32_t own_pid, std::int32_t agent_pid, const std::string& agent_path);

  [[nodiscard]] const std::set<std::int32_t>& GetExcludedPids() const { return excluded_pids_; }

  // True for the keys of exclusion rules: a manifest's rule of that id would be taken for one.
  [[nodiscard]] static bool IsReservedKey(const std::string& key);

  // Everything of this kind that is in the kernel, whichever run added it.
  static void DeleteAll(AuditSocket& socket);
  void AddAll(AuditSocket& socket);

  // True when the agent is another one now, or an exclusion could not be added before: Update has something to do.
  [[nodiscard]] bool NeedsUpdate(std::int32_t agent_pid, const std::string& agent_path) const;
  void Update(AuditSocket& socket, std::int32_t agent_pid, const std::string& agent_path);

 private:
  struct Process {
    std::int32_t pid;
    bool is_installed;
  };

  [[nodiscard]] bool IsAgent(std::int32_t pid, const std::string& path) const;
  void SetAgent(std::int32_t pid, const std::string& name);
  void AddProcesses(AuditSocket& socket);

  std::map<std::string, Process> processes_;  // by process name
  std::int32_t agent_pid_ = 0;
  std::string agent_name_;
  std::set<std::int32_t> excluded_pids_;
};

}  // namespace zagent::audit::internal
