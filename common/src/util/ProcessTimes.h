#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zagent::common::util {

// When the machine was started, in seconds since the epoch: the line "btime" of <proc_root>/stat. The kernel takes it
// from the wall clock, so it moves when that is set. Throws std::runtime_error when there is none.
std::int64_t ReadBootTime(const std::string& proc_root = "/proc");

// When the kernel made a process, in nanoseconds since the boot, in steps of a clock tick: the 22nd field of
// <proc_root>/<pid>/stat. A new program leaves it as it is, and no clock that is set moves it, so two readings of a pid
// that differ are two processes. Answers for threads as well; nothing when there is no such process or thread.
std::optional<std::int64_t> ReadStartSinceBoot(std::int32_t pid, const std::string& proc_root = "/proc");

// The same moment in nanoseconds since the epoch, by the boot time: up to a second early, which the kernel cuts off.
// Throws as ReadBootTime does.
std::int64_t StartSinceEpoch(std::int64_t start_since_boot, const std::string& proc_root = "/proc");

}  // namespace zagent::common::util
