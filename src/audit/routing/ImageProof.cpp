#include "src/audit/routing/ImageProof.h"

#include <sys/stat.h>

#include <optional>
#include <stdexcept>
#include <utility>

#include "common/src/util/Log.h"
#include "common/src/util/ProcessTimes.h"

namespace zagent::audit::internal {
namespace {

using common::util::ReadStartSinceBoot;

// What an event of this kind does not know is left out.
template <typename Ask>
void Answer(const Ask& ask) {
  try {
    ask();
  } catch (const std::runtime_error& error) {
    ZLOG_TRACE(error.what());
  }
}

bool IsRootsAlone(const struct stat& file) {
  const bool group_may_write = (file.st_mode & S_IWGRP) != 0 && file.st_gid != 0;
  return file.st_uid == 0 && !group_may_write && (file.st_mode & S_IWOTH) == 0;
}

}  // namespace

ProcessClaim ClaimOf(const edr::Event& event) {
  // Whose user nobody knows is a stranger's.
  constexpr std::uint32_t kNobodyKnows = 4294967295U;
  ProcessClaim claim{.pid = event.GetActorProcessId(), .image = "", .uid = kNobodyKnows, .euid = kNobodyKnows};
  Answer([&] {
    if (const common::ImageInfo* image = event.GetImage()) claim.image = image->GetPath();
  });
  Answer([&] { claim.uid = event.GetActorUserId(); });
  Answer([&] { claim.euid = event.GetActorEuid(); });
  return claim;
}

ProcessClaim ClaimOf(const common::ProcessInfo& process) {
  const common::ImageInfo* image = process.GetImage();
  return {process.GetPid(), image != nullptr ? std::string_view(image->GetPath()) : std::string_view(),
          process.GetUserId(), process.GetEuid()};
}

std::vector<ProcessClaim> ClaimsOf(const edr::Event& event, const common::ProcessTree& tree) {
  std::vector<ProcessClaim> claims;
  const std::int32_t pid = event.GetActorProcessId();
  if (pid > 0) {
    for (const common::ProcessInfo* process : tree.GetAncestors(pid)) claims.push_back(ClaimOf(*process));
  }
  if (claims.empty()) claims.push_back(ClaimOf(event));
  return claims;
}

ImageProof::ImageProof(std::uint32_t agent_uid, std::string proc_root)
    : agent_uid_(agent_uid), proc_root_(std::move(proc_root)) {}

bool ImageProof::IsDisproved(const ProcessClaim& claim) {
  const bool is_strangers = !IsTrustedUser(claim.uid) && !IsTrustedUser(claim.euid);
  const std::optional<std::int64_t> start =
      claim.pid > 0 ? ReadStartSinceBoot(claim.pid, proc_root_) : std::optional<std::int64_t>();
  if (!start) {
    looks_.erase(claim.pid);
    return is_strangers;
  }
  const auto known = looks_.find(claim.pid);
  if (known != looks_.end() && known->second.start == *start && known->second.path == claim.image) {
    return known->second.is_disproved;
  }
  struct stat running {};
  const std::string exe = proc_root_ + "/" + std::to_string(claim.pid) + "/exe";
  // What has ended and waits for its parent has no program any more, nor has what ended just now.
  if (stat(exe.c_str(), &running) != 0 || ReadStartSinceBoot(claim.pid, proc_root_) != start) return is_strangers;
  std::string path(claim.image);
  struct stat named {};
  const bool is_named = stat(path.c_str(), &named) == 0 && named.st_dev == running.st_dev &&
                        named.st_ino == running.st_ino && IsRootsAlone(named);
  if (!is_named) ZLOG_WARNING("Process " << claim.pid << " is not what it is called: " << path);
  if (looks_.size() >= kCapacity) looks_.clear();
  looks_[claim.pid] = {*start, std::move(path), !is_named};
  return !is_named;
}

}  // namespace zagent::audit::internal
