#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "src/edr/Event.h"
#include "src/edr/process/ProcessTree.h"

namespace zagent::audit::internal {

// The second fence in front of the components: recognises what the program's own family of processes does, children
// included, when the kernel's exclusions let it through. Belongs to the thread of the process tree.
class OwnActivity {
 public:
  // A process of the family has one of `sibling_names` as its file name and lies under `install_path`.
  OwnActivity(const common::ProcessTree& process_tree, std::set<std::string> sibling_names, std::string install_path);

  // True when the event's process, or one of its ancestors, is one of `excluded_pids` or of the family. A process that
  // the tree does not know is judged by the event alone.
  [[nodiscard]] bool IsSourceOf(const edr::Event& event, const std::set<std::int32_t>& excluded_pids) const;

  // The product family as it is shipped.
  static std::set<std::string> DefaultSiblingNames();

 private:
  [[nodiscard]] bool IsSibling(const common::ImageInfo* image) const;

  const common::ProcessTree& process_tree_;
  std::set<std::string> sibling_names_;
  std::string install_folder_;  // with exactly one "/" at its end; empty when there is no folder
};

}  // namespace zagent::audit::internal
