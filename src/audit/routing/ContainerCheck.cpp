#include "src/audit/routing/ContainerCheck.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace zagent::audit::internal {
namespace {

constexpr std::array<std::string_view, 6> kRuntimeNames = {
    "containerd-shim", "containerd-shim-runc-v1", "containerd-shim-runc-v2", "crio", "conmon", "kubelet"};
constexpr std::array<std::string_view, 5> kRuntimeFolders = {"/usr/bin/", "/usr/sbin/", "/usr/local/bin/",
                                                             "/usr/local/sbin/", "/usr/libexec/"};

bool IsRuntime(std::string_view path) {
  const std::size_t name = path.rfind('/') + 1;
  const auto is_one_of = [](const auto& known, std::string_view text) {
    return std::find(known.begin(), known.end(), text) != known.end();
  };
  return is_one_of(kRuntimeNames, path.substr(name)) && is_one_of(kRuntimeFolders, path.substr(0, name));
}

}  // namespace

bool ContainerCheck::IsContainerProcess(const edr::Event& event) const {
  const std::vector<ProcessClaim> claims = ClaimsOf(event, process_tree_);
  return std::any_of(claims.begin(), claims.end(),
                     [&](const ProcessClaim& claim) { return IsRuntime(claim.image) && !proof_.IsDisproved(claim); });
}

}  // namespace zagent::audit::internal
