#pragma once

#include "src/audit/routing/ImageProof.h"
#include "src/edr/Event.h"
#include "src/edr/process/ProcessTree.h"

namespace zagent::audit::internal {

// Tells processes of containers: those that a container runtime in a system folder has started, itself included. A
// program of such a name elsewhere is none, and neither is one that is disproved.
class ContainerCheck {
 public:
  // Both outlive this object.
  ContainerCheck(const common::ProcessTree& process_tree, ImageProof& proof)
      : process_tree_(process_tree), proof_(proof) {}

  [[nodiscard]] bool IsContainerProcess(const edr::Event& event) const;

 private:
  const common::ProcessTree& process_tree_;
  ImageProof& proof_;
};

}  // namespace zagent::audit::internal
