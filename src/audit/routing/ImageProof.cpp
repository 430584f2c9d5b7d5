#include "src/audit/routing/ImageProof.h"

#include <sys/stat.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "common/src/util/Log.h"
#include "common/src/util/ProcessTimes.h"
#include "common/src/util/RootsFile.h"

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

std::optional<bool> ImageProof::HasTrustedUsers(std::int32_t pid) const {
  std::ifstream status(proc_root_ + "/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);) {
    std::istringstream words(line);
    std::string name;
    std::uint32_t uid = 0;
    std::uint32_t euid = 0;
    if (words >> name && name == "Uid:") return words >> uid >> euid && IsTrustedUser(uid) && IsTrustedUser(euid);
  }
  return std::nullopt;
}

ImageProof::Program ImageProof::LookAtProgram(const ProcessClaim& claim) const {
  struct stat running {};
  const std::string exe = proc_root_ + "/" + std::to_string(claim.pid) + "/exe";
  if (stat(exe.c_str(), &running) != 0) return Program::None;
  struct stat named {};
  const bool is_named = stat(std::string(claim.image).c_str(), &named) == 0 && named.st_dev == running.st_dev &&
                        named.st_ino == running.st_ino && common::util::IsRootsAlone(named);
  return is_named ? Program::AsNamed : Program::Another;
}

bool ImageProof::IsDisproved(const ProcessClaim& claim) {
  const bool is_strangers = !IsTrustedUser(claim.uid) && !IsTrustedUser(claim.euid);
  const std::optional<std::int64_t> start =
      claim.pid > 0 ? ReadStartSinceBoot(claim.pid, proc_root_) : std::optional<std::int64_t>();
  if (!start) {
    looks_.erase(claim.pid);
    return is_strangers;
  }
  const auto known = looks_.find(claim.pid);
  const bool is_known = known != looks_.end() && known->second.start == *start && known->second.path == claim.image;
  const Program program = is_known ? Program::AsNamed : LookAtProgram(claim);
  const std::optional<bool> is_trusted = HasTrustedUsers(claim.pid);
  // What has ended and waits for its parent has no program any more, nor has what ended just now.
  if (program == Program::None || !is_trusted || ReadStartSinceBoot(claim.pid, proc_root_) != start) {
    return is_strangers;
  }
  if (is_known) return known->second.is_disproved || !*is_trusted;
  const bool is_named = program == Program::AsNamed;
  if (!is_named) ZLOG_WARNING("Process " << claim.pid << " is not what it is called: " << claim.image);
  if (is_named && !*is_trusted) {
    ZLOG_INFO("Process " << claim.pid << " is run by a user who may not speak for " << claim.image);
  }
  if (looks_.size() >= kCapacity) looks_.clear();
  looks_[claim.pid] = {*start, std::string(claim.image), !is_named};
  return !is_named || !*is_trusted;
}

std::optional<std::int64_t> ImageProof::ProveAnew(const ProcessClaim& claim) {
  looks_.erase(claim.pid);
  const auto start = claim.pid > 0 ? ReadStartSinceBoot(claim.pid, proc_root_) : std::optional<std::int64_t>();
  if (!start || LookAtProgram(claim) != Program::AsNamed || !HasTrustedUsers(claim.pid).value_or(false)) {
    return std::nullopt;
  }
  return ReadStartSinceBoot(claim.pid, proc_root_) == start ? start : std::nullopt;
}

}  // namespace zagent::audit::internal
