#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "common/src/storage/DataFormatter.h"
#include "common/src/storage/FileCalls.h"
#include "common/src/storage/Storage.h"
#include "common/src/tasks/Scheduler.h"
#include "common/src/tasks/Task.h"
#include "common/src/util/Clock.h"

namespace zagent::common {

namespace internal {
class SpoolLimits;
class SpoolStorageSchedule;
class SpoolWorker;
}  // namespace internal

// The durable queue between event producers and the uploader: items gather in a DataFormatter and become numbered
// files "<path>/<prefix>.<0001..9999>"; the uploader reads the oldest, sends it and deletes it.
//
// Bounds: file count, bytes of one file, age of the cache, bytes on disk (the oldest files go first), and bytes that
// wait in the task queue (the disk limit, at most 64 MiB; beyond it WriteAsync answers with a failure at once).
// All state is rebuilt from the directory, so a spool survives restarts and kills.
//
// All work runs on one schedule thread. Asynchronous operations may be called from any thread; callbacks run on the
// schedule's thread, or on the caller's when the operation is refused at once, and each is called exactly once: with
// the code Unknown or false when the operation was refused or ended with an exception (which is logged). A synchronous
// operation waits for its task, and runs it at once when it is called from a callback on the schedule's thread; it
// fails the same way when no Scheduler runs the tasks (any more).
class SpoolStorage final : public Storage {
 public:
  struct Limits {
    std::uint64_t max_disk_size_mib = 0;     // 0: 10 MiB
    std::uint64_t max_file_age_seconds = 0;  // 0: 600 s
    std::uint64_t max_file_size_kib = 0;     // 0: 100 KiB; clamped to half of the disk size with a warning
  };
  static constexpr std::uint64_t kMaxFileCount = 10'000;

  // `path` must be an existing directory; one that others can write to, or of another user, is a warning. Throws
  // StorageException with a text of its own for each bad argument.
  SpoolStorage(Scheduler& scheduler, const std::string& path, const std::string& prefix,
               std::unique_ptr<DataFormatter> formatter, const Limits& limits,
               std::uint64_t max_file_count = kMaxFileCount, util::Clock& clock = util::Clock::Real(),
               FileCalls& calls = FileCalls::Real());
  SpoolStorage(const SpoolStorage&) = delete;
  SpoolStorage& operator=(const SpoolStorage&) = delete;
  // Unregisters the schedule, runs the tasks that never started, with their callbacks, on the destroying thread, and
  // flushes the cache: an orderly stop loses nothing. Not from a callback.
  ~SpoolStorage() override;

  [[nodiscard]] bool HasFreeSpace() const override;
  void ClearAsync(DoneCallback callback) override;
  bool Delete(std::unique_ptr<StorageResult> previous) override;
  void DeleteAsync(std::unique_ptr<StorageResult> previous, DoneCallback callback) override;
  // The oldest file; an empty spool gives NotFound. The result is what Delete wants back.
  std::unique_ptr<StorageResult> Read() override;
  void ReadAsync(ResultCallback callback) override;
  // Data above the largest file size throws StorageException. The result of an item that only went into the cache is
  // Success without a path; with a path it is that of the file that the cache became first. The item was refused when
  // it comes back in `data`. A code that is no Success without it tells of a flush that failed: the item itself is in
  // the cache, and what should have become a file is tried again, or was told in the log.
  std::unique_ptr<StorageResult> Write(Bytes data) override;
  std::unique_ptr<StorageResult> Append(Bytes data, std::unique_ptr<StorageResult> previous) override;
  void WriteAsync(Bytes data, ResultCallback callback) override;

  // Called on the schedule's thread, or by the destructor, whenever the cache has become a file: every item whose write
  // was answered with success before is in a file then, or was told of as dropped. To be set before the first write.
  void SetFiledCallback(std::function<void()> callback);
  // Called likewise when items of the cache are lost (ClearAsync, or a batch that cannot be serialised): those whose
  // write was answered with success since the last of the two callbacks may be in no file. To be set with the other.
  void SetDroppedCallback(std::function<void()> callback);
  // Called likewise when ClearAsync is about to delete files, those of earlier runs too: what was told of as filed may
  // be in none from then on. A kill before the call has returned leaves the files. To be set with the others.
  void SetClearingCallback(std::function<void()> callback);
  // Called likewise for each file that goes before anybody has asked to delete it, with its bytes: the oldest, when the
  // disk limit is reached or no name is free, and one that cannot be read. To be set with the others.
  void SetRemovedCallback(std::function<void(std::uint64_t)> callback);

  // New limits, applied as a task; a value of 0 is ignored with a warning. Never refused: limits that come while
  // others wait join them.
  void Update(const Limits& limits);

  // Largest item that Write takes, in bytes.
  [[nodiscard]] std::uint64_t GetMaxFileSize() const;

  // Memory that is kept by tasks that wait, and by the cache in front of the files. From any thread.
  [[nodiscard]] std::uint64_t GetWaitingBytes() const;
  [[nodiscard]] std::uint64_t GetCachedBytes() const;

 private:
  class PendingWrite;
  Task MakeWrite(Bytes&& data, ResultCallback&& callback);
  Task MakeRead(ResultCallback callback);
  Task MakeDelete(std::unique_ptr<StorageResult> previous, DoneCallback callback);
  // `bytes` of data beside the task itself.
  void Post(Task&& task, std::uint64_t bytes = 0);
  void ApplyUpdate();
  // Waits for a task; whoever made it has its answer then.
  void Await(const char* operation, Task&& task);

  Scheduler& scheduler_;
  std::unique_ptr<internal::SpoolLimits> limits_;
  std::unique_ptr<internal::SpoolWorker> worker_;
  std::shared_ptr<internal::SpoolStorageSchedule> schedule_;
  std::mutex mutex_;  // one synchronous caller at a time, beside the callbacks of the tasks
  std::mutex update_mutex_;
  std::optional<Limits> update_;  // waits for its task
};

}  // namespace zagent::common
