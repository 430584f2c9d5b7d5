#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "common/src/storage/FileCalls.h"
#include "common/src/storage/FileOperations.h"
#include "common/src/storage/SpoolDirectory.h"
#include "common/src/storage/SpoolLimits.h"
#include "common/src/storage/StorageResult.h"

namespace zagent::common::internal {

// The numbered files of one spool, the oldest with the smallest index. Used by one thread at a time; DiskUsage from
// every thread.
class SpoolFiles {
 public:
  // Finds the files that an earlier run left. Throws StorageException.
  SpoolFiles(SpoolDirectory directory, const SpoolLimits& limits, FileCalls& calls = FileCalls::Real());
  SpoolFiles(const SpoolFiles&) = delete;
  SpoolFiles& operator=(const SpoolFiles&) = delete;
  ~SpoolFiles() = default;

  [[nodiscard]] std::uint64_t FirstIndex() const { return first_index_; }  // 0: the spool is empty
  [[nodiscard]] std::uint64_t LastIndex() const { return last_index_; }
  [[nodiscard]] std::uint64_t DiskUsage() const { return disk_usage_; }
  [[nodiscard]] bool HasFreeSpace() const { return limits_.HasFreeSpace(disk_usage_); }

  // Called for each file that goes though nobody has asked for that, with its bytes: an old one that makes room for a
  // new one, and one that cannot be read.
  void SetRemovedCallback(std::function<void(std::uint64_t)> callback) { removed_ = std::move(callback); }

  // Writes `payload` as the newest file, safe on disk when this returns, and lets the oldest files go when the disk
  // limit is reached. On a failure, a StorageException too, `payload` is whole again and no part of it stays on disk.
  // What the disk would not remove is never read; its removal is tried again first, and while that fails nothing is
  // written, so that there is one such file at most. Throws StorageException when no name is free and none can be made
  // free.
  std::unique_ptr<StorageResult> Store(Bytes& payload);

  // What is read is a regular file of its own name and within the bound, as it was when it was opened, whoever may
  // change the folder meanwhile. A file that cannot be read is deleted, and one that is too large to be a spool's
  // (SpoolLimits::MaxReadSize) is renamed to "<prefix>.aside" in the place of an earlier one; neither holds up those
  // behind it. Throws StorageException with ENOENT when there is no file, with EIO when none can be read.
  std::unique_ptr<StorageResult> ReadOldestFile();

  // Deletes the file that `read` stands for, whatever its name is by now. False when it is not there any more.
  bool Delete(const StorageResult& read);

  // Deletes every file. False when one stayed.
  bool Clear();

  // Renames the files to the smallest free indices; their order stays. Throws StorageException.
  void DefragFileIndices();
  // Takes the indices and the disk usage from the directory. Throws StorageException.
  void RefreshFileIndices();

 private:
  enum class CleanupGoal { FreeDiskSpace, FreeName };

  std::unique_ptr<StorageResult> WriteToFreeName(std::uint64_t& index, Bytes& payload);
  enum class ReadOutcome { Read, Failed, SetAside };
  ReadOutcome TryReadFile(std::uint64_t index, std::unique_ptr<StorageResult>& result);
  void CleanupAfterWrite();
  void Cleanup(CleanupGoal goal);
  bool DeleteFile(std::uint64_t index);
  // Deletes what is not sent yet.
  bool RemoveUnsent(std::uint64_t index);
  bool Unlink(std::uint64_t index, const std::function<void(std::uint64_t)>& tell);
  void RemoveTornFile();
  [[nodiscard]] bool IsTornFile(const std::string& path, const struct stat& info) const;
  bool SetAside(std::uint64_t index, std::uint64_t size);
  // The file of an index is not there any more.
  void Forget(std::uint64_t index, std::uint64_t size);
  bool Rename(const std::string& from, const std::string& to);
  bool IsTaken(const std::string& path);

  const SpoolDirectory directory_;
  const SpoolLimits& limits_;
  FileCalls& calls_;
  std::function<void(std::uint64_t)> removed_;
  FolderSync sync_names_;
  std::uint64_t first_index_ = 0;
  std::uint64_t last_index_ = 0;
  std::atomic<std::uint64_t> disk_usage_{0};
  // A write that was cut short, or one that is not safe, as long as its file is there: its path, its attributes if
  // they could be had, and why it could not be removed. No data.
  std::unique_ptr<StorageResult> torn_;
};

}  // namespace zagent::common::internal
