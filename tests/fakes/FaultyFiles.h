#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "common/src/storage/FileCalls.h"

namespace zagent::fakes {

// The machine's files with the faults that a test asks for, and a record of what was made safe on disk.
class FaultyFiles final : public common::FileCalls {
 public:
  enum class Call { Open, Read, Write, Fstat, Fsync, Stat, Lstat, Unlink, Rename, List };

  // Asked before each call, with the path that it concerns (of a rename, the new one). A value other than 0 is the
  // errno with which the call fails. Set before other threads use the files.
  std::function<int(Call, const std::string& path)> fault;
  // No read or write moves more bytes at once.
  std::size_t max_bytes = std::numeric_limits<std::size_t>::max();
  // Without it the disk is spared: a sync is only recorded.
  bool really_sync = true;

  [[nodiscard]] std::size_t SyncCount() const {
    const std::lock_guard lock(mutex_);
    return sync_count_;
  }
  // The paths of the first syncs, in order.
  [[nodiscard]] std::vector<std::string> Synced() const {
    const std::lock_guard lock(mutex_);
    return synced_;
  }

  // A fault for one kind of call.
  void Fail(Call call, int error) {
    fault = [call, error](Call asked, const std::string&) { return asked == call ? error : 0; };
  }

  int Open(const char* path, int flags, mode_t mode) override {
    if (Fails(Call::Open, path)) return -1;
    const int fd = FileCalls::Open(path, flags, mode);
    if (fd >= 0) {
      const std::lock_guard lock(mutex_);
      paths_[fd] = path;
    }
    return fd;
  }
  ssize_t Read(int fd, void* buffer, std::size_t size) override {
    return Fails(Call::Read, PathOf(fd)) ? -1 : FileCalls::Read(fd, buffer, std::min(size, max_bytes));
  }
  ssize_t Write(int fd, const void* data, std::size_t size) override {
    return Fails(Call::Write, PathOf(fd)) ? -1 : FileCalls::Write(fd, data, std::min(size, max_bytes));
  }
  int Fstat(int fd, struct stat* info) override {
    return Fails(Call::Fstat, PathOf(fd)) ? -1 : FileCalls::Fstat(fd, info);
  }
  int Fsync(int fd) override {
    const std::string path = PathOf(fd);
    if (Fails(Call::Fsync, path)) return -1;
    if (really_sync && FileCalls::Fsync(fd) != 0) return -1;
    const std::lock_guard lock(mutex_);
    ++sync_count_;
    if (synced_.size() < kMaxSynced) synced_.push_back(path);
    return 0;
  }
  int Stat(const char* path, struct stat* info) override {
    return Fails(Call::Stat, path) ? -1 : FileCalls::Stat(path, info);
  }
  int Lstat(const char* path, struct stat* info) override {
    return Fails(Call::Lstat, path) ? -1 : FileCalls::Lstat(path, info);
  }
  int ListFolder(const char* path, std::vector<std::string>& names) override {
    return Fails(Call::List, path) ? -1 : FileCalls::ListFolder(path, names);
  }
  int Unlink(const char* path) override { return Fails(Call::Unlink, path) ? -1 : FileCalls::Unlink(path); }
  int Rename(const char* from, const char* to) override {
    return Fails(Call::Rename, to) ? -1 : FileCalls::Rename(from, to);
  }

 private:
  static constexpr std::size_t kMaxSynced = 1000;

  bool Fails(Call call, const std::string& path) {
    const int error = fault ? fault(call, path) : 0;
    if (error != 0) errno = error;
    return error != 0;
  }
  // A descriptor's number comes back for another file, whose opening replaces the path.
  std::string PathOf(int fd) const {
    const std::lock_guard lock(mutex_);
    const auto known = paths_.find(fd);
    return known != paths_.end() ? known->second : std::string();
  }

  mutable std::mutex mutex_;
  std::map<int, std::string> paths_;
  std::size_t sync_count_ = 0;
  std::vector<std::string> synced_;
};

}  // namespace zagent::fakes
