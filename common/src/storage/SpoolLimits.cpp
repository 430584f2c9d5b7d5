#include "common/src/storage/SpoolLimits.h"

#include <algorithm>

#include "common/src/util/Log.h"

namespace zagent::common::internal {
namespace {

constexpr std::uint64_t kKib = 1024;
constexpr std::uint64_t kMib = 1024 * kKib;
// Sums of two sizes, and the present time plus an age in nanoseconds, stay within 64 bits.
constexpr std::uint64_t kLargestSize = std::uint64_t{1} << 62;
constexpr std::uint64_t kLargestAge = std::uint64_t{100} * 365 * 86'400;

std::uint64_t InBytes(std::uint64_t count, std::uint64_t unit) {
  return std::min(count, kLargestSize / unit) * unit;
}

}  // namespace

void SpoolLimits::Apply(std::uint64_t max_disk_size_mib, std::uint64_t max_file_age_seconds,
                        std::uint64_t max_file_size_kib) {
  const std::uint64_t disk_size = max_disk_size_mib != 0 ? InBytes(max_disk_size_mib, kMib) : max_disk_size_.load();
  std::uint64_t file_size = max_file_size_kib != 0 ? InBytes(max_file_size_kib, kKib) : max_file_size_.load();
  if (file_size >= disk_size) {
    ZLOG_WARNING("SpoolStorage: Max file size " << file_size << " does not fit max disk size " << disk_size
                                                << ". Using " << disk_size / 2 << ".");
    file_size = disk_size / 2;
  }
  max_disk_size_ = disk_size;
  max_file_size_ = file_size;
  if (max_file_age_seconds != 0) max_file_age_ = std::min(max_file_age_seconds, kLargestAge);
}

}  // namespace zagent::common::internal
