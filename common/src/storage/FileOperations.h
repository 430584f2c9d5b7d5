#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "common/src/storage/FileCalls.h"
#include "common/src/storage/StorageResult.h"
#include "common/src/util/UniqueFd.h"

// Low-level file operations of every storage. They never throw on a file failure: the failure is a code and one log
// line at error level. All open with O_CLOEXEC | O_NONBLOCK, so that a FIFO put in a file's place never blocks, and go
// on after a signal.
namespace zagent::common {

enum class Durability {
  Cached,  // the kernel has it
  OnDisk,  // the disk has it: the content, not yet the name (FolderSync)
};

// Creates the file (mode 0600) and writes `data`; an existing file is never overwritten (AlreadyExists). After a
// failure the partly written file stays, and stat_info, if it could be had, tells it from others. `created` hears
// whether there was a file to stay.
std::unique_ptr<StorageResult> WriteFile(const std::string& path, Bytes data, FileCalls& calls = FileCalls::Real(),
                                         Durability durability = Durability::Cached, bool* created = nullptr);

// Makes the names in a folder safe on disk, time and again. The folder stays open in between, which spares a sync the
// way there; whoever bears the path at a sync is synced. Used by one thread at a time.
class FolderSync {
 public:
  explicit FolderSync(std::string path, FileCalls& calls = FileCalls::Real());
  // Returns errno, with its log line at error level; 0 where the file system has no such operation.
  int operator()();

 private:
  [[nodiscard]] bool IsAtPath() const;
  void Open();

  const std::string path_;
  FileCalls& calls_;
  util::UniqueFd folder_;
  struct stat opened_ {};
};

// Appends to an existing file, only if its inode is that of previous.stat_info (else FileReplaced).
std::unique_ptr<StorageResult> AppendFile(const std::string& path, Bytes data, const StorageResult& previous,
                                          FileCalls& calls = FileCalls::Real());

// Reads a whole regular file. Anything but a regular file gives no data and Success.
std::unique_ptr<StorageResult> ReadFile(const std::string& path, FileCalls& calls = FileCalls::Real());

// Opens the file, stats it and reads at most `max_bytes` of it.
std::unique_ptr<StorageResult> ReadFileUpTo(const std::string& path, std::size_t max_bytes,
                                            FileCalls& calls = FileCalls::Real());

// Reads a whole file of at most `max_bytes` that is a regular one under this very name. A link is not followed
// (Unknown); another kind of file gives NotAFile and a larger one Unknown, without data but with stat_info and no log
// line.
std::unique_ptr<StorageResult> ReadRegularFile(const std::string& path, std::uint64_t max_bytes,
                                               FileCalls& calls = FileCalls::Real());

// Reads up to `size` bytes from `fd`; `stat` is that of the descriptor and is copied into the result.
std::unique_ptr<StorageResult> ReadFileDescriptor(const std::string& path, const struct stat& stat, int fd,
                                                  std::size_t size, FileCalls& calls = FileCalls::Real());

}  // namespace zagent::common
