#include "src/ioc/process/LiveProcesses.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "common/src/util/Log.h"
#include "common/src/util/ProcessTimes.h"
#include "src/edr/process/ProcFSProcessInfo.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr std::uint32_t kNoLogin = 4294967295U;

std::uint32_t ReadLoginUid(std::int32_t pid, const std::string& proc_root) {
  std::ifstream in(proc_root + "/" + std::to_string(pid) + "/loginuid");
  std::uint32_t login_uid = 0;
  return in >> login_uid ? login_uid : kNoLogin;
}

// Events have the time of whole seconds.
bool WasThere(std::int64_t start, std::int64_t time) {
  return start - kNanosecondsPerSecond < time;
}

}  // namespace

std::optional<std::int64_t> LiveProcesses::FindStart(std::int32_t pid) const {
  return common::util::ReadStartSinceBoot(pid, proc_root_);
}

bool LiveProcesses::IsGone(std::int32_t pid) const {
  const std::string folder = proc_root_ + "/" + std::to_string(pid);
  return access(folder.c_str(), F_OK) != 0 && errno == ENOENT;
}

// The kernel adds up all interrupts for whoever reads the file of the boot time, so it is not read for every process.
// It moves when the clock is set.
std::optional<std::int64_t> LiveProcesses::ToEpoch(std::int64_t start_since_boot) {
  const auto now = clock_.SteadyNow();
  if (!boot_time_ || now >= boot_time_known_until_) {
    try {
      boot_time_ = common::util::ReadBootTime(proc_root_);
    } catch (const std::runtime_error& error) {
      ZLOG_DEBUG(error.what());
      boot_time_.reset();
      return std::nullopt;
    }
    boot_time_known_until_ = now + std::chrono::seconds(1);
  }
  return *boot_time_ * kNanosecondsPerSecond + start_since_boot;
}

bool LiveProcesses::IsSameStart(std::int64_t stored, std::int64_t live) {
  constexpr std::uint64_t kTolerance = 2 * static_cast<std::uint64_t>(kNanosecondsPerSecond) - 1;
  return static_cast<std::uint64_t>(stored) - static_cast<std::uint64_t>(live) + kTolerance <= 2 * kTolerance;
}

std::optional<std::int64_t> LiveProcesses::FindStartBefore(std::int32_t pid, std::int64_t time) {
  const auto start = FindStart(pid);
  if (!start) return std::nullopt;
  const auto since_epoch = ToEpoch(*start);
  if (!since_epoch || !WasThere(*since_epoch, time)) return std::nullopt;
  return start;
}

std::shared_ptr<ProcessInfo> LiveProcesses::Find(std::int32_t pid, std::int64_t time,
                                                 const ProcessInfo::OnCacheFull& on_cache_full) const {
  try {
    const common::ProcFSProcessInfo live(pid, ReadLoginUid(pid, proc_root_), proc_root_);
    if (live.GetPid() != pid || !WasThere(live.GetCreationTime(), time)) return nullptr;
    ProcessInfo::Description known;
    known.pid = pid;
    known.ppid = live.GetParent();
    known.arguments = live.GetArguments();
    known.auid = live.GetAuid();
    known.uid = live.GetUserId();
    known.euid = live.GetEuid();
    known.creation_time = live.GetCreationTime();
    known.cwd = live.GetCwd();
    known.image = *live.GetImage();
    auto process = std::make_shared<ProcessInfo>(std::move(known), on_cache_full);
    process->SetStartSinceBoot(live.GetStartSinceBoot());
    return process;
  } catch (const std::exception& error) {
    ZLOG_DEBUG(error.what());
    return nullptr;
  }
}

}  // namespace zagent::ioc::internal
