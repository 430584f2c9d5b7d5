#pragma once

#include <Poco/Message.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "src/audit/rules/AuditSocket.h"

namespace zagent::audit::internal {

// What the kernel shall not report: the program's own process, the parent agent and the product family's other
// processes, the creation of threads, and end-of-event records. Failures are logged; an exclusion that could not be
// added, or taken away, is tried again by the next call.
//
// An exclusion dies with its process: it holds for a pid, the start time that <proc root> tells of it, and the program
// that it runs, so that whoever gets the pid next is heard, and whoever makes the process run something else. The next
// version of the program under the same path is the program.
//
// The caller serialises.
class Exclusions {
 public:
  // Enters the two processes; talks to nobody. The agent goes by the file name of its executable, and by another name
  // where that is the program's own. No process has a pid below 1: such an agent has ended. One whose process
  // the procfs does not know, though it knows the program, has ended; Update takes it for another one as soon as it
  // does.
  Exclusions(std::int32_t own_pid, std::int32_t agent_pid, const std::string& agent_path,
             std::string proc_root = "/proc");

  [[nodiscard]] const std::set<std::int32_t>& GetExcludedPids() const { return excluded_pids_; }
  // The program and its parent agent.
  [[nodiscard]] std::set<std::int32_t> GetAgentPids() const;
  // When the excluded processes but the program itself were started, as ReadStartSinceBoot tells, by pid; without those
  // that were not there.
  [[nodiscard]] std::map<std::int32_t, std::int64_t> GetStarts() const;

  // True for the keys of exclusion rules: a manifest's rule of that id would be taken for one.
  [[nodiscard]] static bool IsReservedKey(const std::string& key);

  // Everything of this kind that is in the kernel, whichever run added it.
  static void DeleteAll(AuditSocket& socket);
  void AddAll(AuditSocket& socket);

  // True when the agent is another one now, or an exclusion could not be added before: Update has something to do.
  [[nodiscard]] bool NeedsUpdate(std::int32_t agent_pid, const std::string& agent_path) const;
  void Update(AuditSocket& socket, std::int32_t agent_pid, const std::string& agent_path);

  // Whether a process goes by this name already.
  [[nodiscard]] bool Contains(const std::string& name) const { return processes_.count(name) != 0; }
  // Excludes one more process under a name that is free. Does nothing when the process of this start has ended.
  void Add(AuditSocket& socket, const std::string& name, std::int32_t pid, std::int64_t start);

  // The process has ended: it is excluded no more, and RemoveEnded takes its rules away. False for a pid that is not
  // excluded, and for the program itself.
  bool End(std::int32_t pid);
  // Looks whether the processes are still there and run what they ran, and ends those that are not, or are others by
  // now. Nothing can be said while the procfs does not know the program itself. True when RemoveEnded has something to
  // do.
  bool EndMissing();
  // The same look at the process that goes by this name alone. True when it was ended.
  bool EndIfMissing(const std::string& name);
  // What the kernel does not give up is left for the next look.
  void RemoveEnded(AuditSocket& socket);
  // Whether all that is to be excluded is.
  [[nodiscard]] bool IsComplete() const;
  // RemoveEnded, and another try at what could not be added, which has been told: a failure is logged at Debug.
  void Renew(AuditSocket& socket);

 private:
  // The file that a process runs.
  struct Program {
    std::uint64_t device;
    std::uint64_t inode;
    std::string path;
  };
  struct Process {
    std::int32_t pid;
    std::optional<std::int64_t> start;  // as ReadStartSinceBoot tells; nothing when it was not there
    std::optional<Program> program;     // nothing when it could not be read
    bool is_installed = false;
  };

  [[nodiscard]] Process Enter(std::int32_t pid) const;
  [[nodiscard]] std::optional<Program> ReadProgram(std::int32_t pid) const;
  // False for a process that is gone, another one, or runs something else. Learns the program's next version.
  [[nodiscard]] bool IsStill(Process& process) const;
  [[nodiscard]] bool HasGone(Process& process) const;
  [[nodiscard]] bool IsAgent(std::int32_t pid, const std::string& path) const;
  void SetAgent(std::int32_t pid, const std::string& name);
  void CollectPids();
  void AddMissing(AuditSocket& socket, Poco::Message::Priority priority);

  const std::string proc_root_;
  const std::int32_t own_pid_;
  std::map<std::string, Process> processes_;  // by process name
  std::set<std::string> ended_;               // names whose rules may stand in the kernel for a process that has ended
  std::int32_t agent_pid_ = 0;                // 0: it has ended
  std::string agent_name_;
  std::set<std::int32_t> excluded_pids_;
  bool has_message_types_ = false;
  bool has_threads_ = false;
};

}  // namespace zagent::audit::internal
