#include "src/audit/routing/OwnActivity.h"

#include <exception>
#include <utility>

#include "common/src/util/Log.h"

namespace zagent::audit::internal {
namespace {

std::string AsFolder(std::string path) {
  if (path.empty()) return path;
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path + "/";
}

}  // namespace

OwnActivity::OwnActivity(const common::ProcessTree& process_tree, ImageProof& proof,
                         std::set<std::string> sibling_names, std::string install_path, std::int32_t own_pid)
    : process_tree_(process_tree),
      proof_(proof),
      sibling_names_(std::move(sibling_names)),
      install_folder_(AsFolder(std::move(install_path))),
      own_pid_(own_pid) {}

// Known without the tree, which is empty when nobody asks for processes.
bool OwnActivity::IsOfOwnChild(const edr::Event& event) const {
  try {
    return event.GetActorParentProcessId() == own_pid_;
  } catch (const std::exception&) {
    return false;  // an event without an actor
  }
}

bool OwnActivity::IsSourceOf(const edr::Event& event, const std::set<std::int32_t>& excluded_pids) const {
  if (IsOfOwnChild(event)) return true;
  return AnyClaimOf(event, process_tree_, [&](const ProcessClaim& claim) {
    if (excluded_pids.count(claim.pid) != 0) return true;
    if (!IsCalledSibling(claim.image)) return false;
    const ProcessClaim own = ClaimOf(event);
    // It became another program, and nobody heard of that.
    if (claim.pid == own.pid && !own.image.empty() && !IsCalledSibling(own.image)) return false;
    return !proof_.IsDisproved(claim);
  });
}

bool OwnActivity::IsDoneBelow(const edr::Event& event, const std::set<std::int32_t>& pids) const {
  return AnyClaimOf(event, process_tree_, [&](const ProcessClaim& claim) { return pids.count(claim.pid) != 0; });
}

std::optional<ProcessClaim> OwnActivity::FindSibling(const edr::Event& event) const {
  ProcessClaim claim;
  if (event.GetType() == edr::EventType::AbnormalEnd) {
    try {
      claim = ClaimOf(process_tree_.Get(event.GetActorProcessId()));
    } catch (const common::GenericProcessTreeException&) {
      ZLOG_DEBUG("Failed to find process information for pid: " << event.GetActorProcessId());
      return std::nullopt;
    }
  } else {
    claim = ClaimOf(event);
  }
  if (!IsCalledSibling(claim.image)) return std::nullopt;
  return claim;
}

bool OwnActivity::IsCalledSibling(std::string_view image) const {
  if (install_folder_.empty() || !image.starts_with(install_folder_)) return false;
  return sibling_names_.count(std::string(image.substr(image.rfind('/') + 1))) != 0;
}

std::set<std::string> OwnActivity::DefaultSiblingNames() {
  return {
      "ostrel-agent-updater",
      "ostrel-asset-inventory",
      "ostrel-av-scanner",
      "ostrel-cloud-connector",
      "ostrel-compliance-scanner",
      "ostrel-container-sensor",
      "ostrel-crash-reporter",
      "ostrel-device-control",
      "ostrel-diagnostics",
      "ostrel-edrostrel-health-check",  // two names run together; shipped like this, matches nothing
      "ostrel-event-forwarder",
      "ostrel-firewall-agent",
      "ostrel-host-warden",
      "ostrel-license-agent",
      "ostrel-log-collector",
      "ostrel-network-sensor",
      "ostrel-patch-manager",
      "ostrel-quarantine",
      "ostrel-response-runner",
      "ostrel-vulnerability-scanner",
      "updated",
  };
}

}  // namespace zagent::audit::internal
