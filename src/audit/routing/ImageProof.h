#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "src/edr/Event.h"
#include "src/edr/process/ProcessTree.h"

namespace zagent::audit::internal {

// Who a process says it is, by an event or by the process tree. Lives no longer than these.
struct ProcessClaim {
  std::int32_t pid = 0;
  std::string_view image;  // path of its program; empty when nobody knows
  std::uint32_t uid = 0;
  std::uint32_t euid = 0;
};

[[nodiscard]] ProcessClaim ClaimOf(const edr::Event& event);
[[nodiscard]] ProcessClaim ClaimOf(const common::ProcessInfo& process);
// The process of an event and everything above it as the tree knows them, nearest first; of a process that the tree
// does not know, what the event says of it.
[[nodiscard]] std::vector<ProcessClaim> ClaimsOf(const edr::Event& event, const common::ProcessTree& tree);
// Whether one of these claims fulfils a condition; without memory for a list, for who asks at every event.
template <typename Condition>
[[nodiscard]] bool AnyClaimOf(const edr::Event& event, const common::ProcessTree& tree, Condition condition) {
  const std::int32_t pid = event.GetActorProcessId();
  if (pid <= 0 || !tree.Contains(pid)) return condition(ClaimOf(event));
  return tree.AnyAncestor(pid, [&](const common::ProcessInfo& process) { return condition(ClaimOf(process)); });
}

// Whether a process really runs the file that its path names. A path says nothing by itself: who may make a mount
// namespace puts a program of his own wherever he likes in it.
//
// Disproved is a process that lives and whose <proc root>/<pid>/exe is another file than the path in this process' own
// namespaces, or a file that is not root's or that others may write, or that is another user's than root's or the
// agent's by its uid or its euid: whoever starts a program makes it do what he likes. One that is gone is disproved
// when it was neither root's nor the agent's. A look at the file is kept by pid, start time and path, so that a program
// that is replaced on disk while it runs stays what it was; the users are read each time. At most 1,024 looks are kept;
// beyond that all are forgotten.
//
// Belongs to one thread at a time.
class ImageProof {
 public:
  static constexpr std::size_t kCapacity = 1'024;

  explicit ImageProof(std::uint32_t agent_uid, std::string proc_root = "/proc");

  [[nodiscard]] bool IsDisproved(const ProcessClaim& claim);
  // The start since boot of a process that lives and is what it claims at this very moment, whatever was seen before;
  // nothing for any other.
  [[nodiscard]] std::optional<std::int64_t> ProveAnew(const ProcessClaim& claim);

 private:
  struct Look {
    std::int64_t start;
    std::string path;
    bool is_disproved;
  };

  enum class Program { AsNamed, Another, None };

  [[nodiscard]] bool IsTrustedUser(std::uint32_t uid) const { return uid == 0 || uid == agent_uid_; }
  // Of the process that lives; nothing when it does not any more.
  [[nodiscard]] std::optional<bool> HasTrustedUsers(std::int32_t pid) const;
  [[nodiscard]] Program LookAtProgram(const ProcessClaim& claim) const;

  const std::uint32_t agent_uid_;
  const std::string proc_root_;
  std::map<std::int32_t, Look> looks_;
};

}  // namespace zagent::audit::internal
