#pragma once

#include <unistd.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "src/audit/routing/ImageProof.h"
#include "src/edr/Event.h"
#include "src/edr/process/ProcessTree.h"

namespace zagent::audit::internal {

// The second fence in front of the components: recognises what the program's own family of processes does, children
// included, when the kernel's exclusions let it through. Belongs to the thread of the process tree.
class OwnActivity {
 public:
  // A process of the family has one of `sibling_names` as its file name, lies under `install_path`, and is not
  // disproved. Tree and proof outlive this object.
  OwnActivity(const common::ProcessTree& process_tree, ImageProof& proof, std::set<std::string> sibling_names,
              std::string install_path, std::int32_t own_pid = getpid());

  // True when the event's process, or one of its ancestors, is one of `excluded_pids` or of the family, or when it is a
  // child of this process. A process that the tree does not know is judged by the event alone. Asked when the event
  // comes in: later the process may be another one, or run another program, and even then the program that the event
  // tells of counts against the tree's.
  [[nodiscard]] bool IsSourceOf(const edr::Event& event, const std::set<std::int32_t>& excluded_pids) const;

  // True when the event's process, or one of its ancestors, is one of `pids`.
  [[nodiscard]] bool IsDoneBelow(const edr::Event& event, const std::set<std::int32_t>& pids) const;

  // The process that an event of a process tells of, when it is called like one of the family: of an abnormal end as
  // the tree knows it (when it does not, "Failed to find process information for pid: " is logged), else as the event
  // says.
  [[nodiscard]] std::optional<ProcessClaim> FindSibling(const edr::Event& event) const;
  // The start since boot of a sibling that lives and is one of the family in truth, as it stands now; nothing for any
  // other.
  [[nodiscard]] std::optional<std::int64_t> Prove(const ProcessClaim& sibling) const {
    return proof_.ProveAnew(sibling);
  }

  // The product family as it is shipped.
  static std::set<std::string> DefaultSiblingNames();

 private:
  [[nodiscard]] bool IsCalledSibling(std::string_view image) const;
  [[nodiscard]] bool IsOfOwnChild(const edr::Event& event) const;

  const common::ProcessTree& process_tree_;
  ImageProof& proof_;
  std::set<std::string> sibling_names_;
  std::string install_folder_;  // with exactly one "/" at its end; empty when there is no folder
  const std::int32_t own_pid_;
};

}  // namespace zagent::audit::internal
