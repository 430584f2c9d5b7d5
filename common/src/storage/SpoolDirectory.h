#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/src/storage/FileCalls.h"

namespace zagent::common::internal {

// The names "<path>/<prefix>.<0001..9999>" of a spool and the files that bear them.
//
// Only regular files count: a link, a folder or a FIFO under such a name is somebody else's and is never read.
class SpoolDirectory {
 public:
  struct Entry {
    std::uint64_t index;
    std::uint64_t size;  // bytes
  };

  SpoolDirectory(std::string path, std::string prefix, std::uint64_t max_index, FileCalls& calls = FileCalls::Real());

  [[nodiscard]] const std::string& Path() const { return path_; }
  [[nodiscard]] std::uint64_t MaxIndex() const { return max_index_; }

  // Path of the file of an index. Throws StorageException "SpoolStorage: File index out of range".
  [[nodiscard]] std::string FileName(std::uint64_t index) const;
  // Path of what is set aside; no name of a spool file.
  [[nodiscard]] std::string AsideName() const { return path_ + "/" + prefix_ + ".aside"; }
  // Index of a name without its folder; 0 for a name that is none of this spool's.
  [[nodiscard]] std::uint64_t IndexOf(const std::string& name) const;
  // Index of a path; 0 unless it is exactly that of one of this spool's names.
  [[nodiscard]] std::uint64_t IndexOfPath(const std::string& path) const;

  // The attributes of the regular file of an index: 0, ENOENT where there is none, or the errno that has been logged.
  int Look(std::uint64_t index, struct stat& info) const;
  // The same, if there is such a file and they can be had.
  [[nodiscard]] std::optional<struct stat> Stat(std::uint64_t index) const;

  // All files in the order of their indices; one whose attributes cannot be had is among them with a size of 0. Throws
  // StorageException with the text `operation` and errno.
  [[nodiscard]] std::vector<Entry> List(const char* operation) const;

 private:
  std::string path_;
  std::string prefix_;
  std::uint64_t max_index_;
  FileCalls& calls_;
};

}  // namespace zagent::common::internal
