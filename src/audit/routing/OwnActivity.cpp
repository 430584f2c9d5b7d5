#include "src/audit/routing/OwnActivity.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace zagent::audit::internal {
namespace {

std::string AsFolder(std::string path) {
  if (path.empty()) return path;
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path + "/";
}

}  // namespace

OwnActivity::OwnActivity(const common::ProcessTree& process_tree, std::set<std::string> sibling_names,
                         std::string install_path)
    : process_tree_(process_tree),
      sibling_names_(std::move(sibling_names)),
      install_folder_(AsFolder(std::move(install_path))) {}

bool OwnActivity::IsSourceOf(const edr::Event& event, const std::set<std::int32_t>& excluded_pids) const {
  const std::int32_t pid = event.GetActorProcessId();
  std::vector<const common::ProcessInfo*> ancestors;
  if (pid > 0) ancestors = process_tree_.GetAncestors(pid);
  if (ancestors.empty()) return excluded_pids.count(pid) != 0 || IsSibling(event.GetImage());
  return std::any_of(ancestors.begin(), ancestors.end(), [&](const common::ProcessInfo* process) {
    return excluded_pids.count(process->GetPid()) != 0 || IsSibling(process->GetImage());
  });
}

bool OwnActivity::IsSibling(const common::ImageInfo* image) const {
  if (image == nullptr || install_folder_.empty()) return false;
  const std::string& path = image->GetPath();
  return path.starts_with(install_folder_) && sibling_names_.count(path.substr(path.rfind('/') + 1)) != 0;
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
