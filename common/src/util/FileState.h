#pragma once

#include <sys/stat.h>

#include <cstdint>

namespace zagent::common::util {

// What tells one content of a file from another without a look into it: who the file is, its size, and when the inode
// changed last, to the nanosecond.
struct FileState {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::int64_t size = 0;       // bytes
  std::int64_t changed_s = 0;  // since the epoch
  std::int64_t changed_ns = 0;

  FileState() = default;
  // Implicit: a look at a file is a look at its state.
  FileState(const struct stat& file)  // NOLINT(google-explicit-constructor)
      : device(file.st_dev),
        inode(file.st_ino),
        size(file.st_size),
        changed_s(file.st_ctim.tv_sec),
        changed_ns(file.st_ctim.tv_nsec) {}
  bool operator==(const FileState&) const = default;
};

}  // namespace zagent::common::util
