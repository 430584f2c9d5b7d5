#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace zagent::common::internal {

// The bounds of one spool, in bytes and seconds. One thread at a time changes them, every thread may read them.
class SpoolLimits {
 public:
  static constexpr std::uint64_t kDefaultMaxDiskSize = 10'485'760;
  static constexpr std::uint64_t kDefaultMaxFileAge = 600;
  static constexpr std::uint64_t kDefaultMaxFileSize = 102'400;
  static constexpr std::uint64_t kLargestBuffer = std::uint64_t{64} * 1'048'576;

  SpoolLimits() = default;

  // A value of 0 leaves the limit as it is. A largest file that would fill the whole disk limit is set to half of it
  // with a warning, or each file would be deleted as soon as it is written.
  void Apply(std::uint64_t max_disk_size_mib, std::uint64_t max_file_age_seconds, std::uint64_t max_file_size_kib);

  [[nodiscard]] std::uint64_t MaxDiskSize() const { return max_disk_size_; }
  [[nodiscard]] std::uint64_t MaxFileAge() const { return max_file_age_; }
  [[nodiscard]] std::uint64_t MaxFileSize() const { return max_file_size_; }

  // No spool file is larger, whatever the limits were when it was written.
  [[nodiscard]] std::uint64_t MaxReadSize() const { return std::max(2 * MaxDiskSize(), kLargestBuffer); }
  // What may wait in memory for its turn.
  [[nodiscard]] std::uint64_t MaxWaitingBytes() const { return std::min(MaxDiskSize(), kLargestBuffer); }

  // Whether one more file of the largest size fits beside `disk_usage` bytes.
  [[nodiscard]] bool HasFreeSpace(std::uint64_t disk_usage) const {
    return max_file_size_ + disk_usage < max_disk_size_;
  }

 private:
  std::atomic<std::uint64_t> max_disk_size_{kDefaultMaxDiskSize};
  std::atomic<std::uint64_t> max_file_age_{kDefaultMaxFileAge};
  std::atomic<std::uint64_t> max_file_size_{kDefaultMaxFileSize};
};

}  // namespace zagent::common::internal
