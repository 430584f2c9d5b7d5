#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <memory>
#include <string>

#include "common/src/storage/StorageResult.h"

// Low-level file operations of every storage. They never throw on a file failure: the failure is a code and one log
// line at error level. All open with O_CLOEXEC | O_NONBLOCK, so that a FIFO put in a file's place never blocks.
namespace zagent::common {

// Creates the file (mode 0600) and writes `data`; an existing file is never overwritten (AlreadyExists).
std::unique_ptr<StorageResult> WriteFile(const std::string& path, Bytes data);

// Appends to an existing file, only if its inode is that of previous.stat_info (else FileReplaced).
std::unique_ptr<StorageResult> AppendFile(const std::string& path, Bytes data, const StorageResult& previous);

// Reads a whole regular file. Anything but a regular file gives no data and Success.
std::unique_ptr<StorageResult> ReadFile(const std::string& path);

// Opens the file, stats it and reads at most `max_bytes` of it.
std::unique_ptr<StorageResult> ReadFileUpTo(const std::string& path, std::size_t max_bytes);

// Reads up to `size` bytes from `fd`; `stat` is that of the descriptor and is copied into the result.
std::unique_ptr<StorageResult> ReadFileDescriptor(const std::string& path, const struct stat& stat, int fd,
                                                  std::size_t size);

}  // namespace zagent::common
