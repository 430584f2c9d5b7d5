#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "common/src/storage/DataFormatter.h"
#include "common/src/storage/SpoolFiles.h"
#include "common/src/storage/SpoolLimits.h"
#include "common/src/storage/StorageResult.h"
#include "common/src/util/Clock.h"

namespace zagent::common::internal {

// What the tasks of a spool do: the cache (a formatter) in front of the files. Used by one thread at a time; the
// limits, HasFreeSpace and GetHeldBytes from every thread.
//
// Operations throw DataFormatterException and StorageException; file failures come back as codes.
class SpoolWorker {
 public:
  // `schedule_sync` is called with the seconds after which Sync is wanted.
  SpoolWorker(std::unique_ptr<DataFormatter> formatter, SpoolDirectory directory, SpoolLimits& limits,
              std::function<void(std::uint64_t)> schedule_sync, FileCalls& calls = FileCalls::Real(),
              util::Clock& clock = util::Clock::Real());

  // Called when all that was in the cache has become a file.
  void SetFiledCallback(std::function<void()> callback) { filed_ = std::move(callback); }

  // Called when something of what was in the cache is lost: by Clear, or because it could not be serialised.
  void SetDroppedCallback(std::function<void()> callback) { dropped_ = std::move(callback); }

  // Called by Clear before it deletes files.
  void SetClearingCallback(std::function<void()> callback) { clearing_ = std::move(callback); }

  // Called for each file that goes before it was sent (SpoolFiles), with its bytes.
  void SetRemovedCallback(std::function<void(std::uint64_t)> callback) {
    files_.SetRemovedCallback(std::move(callback));
  }

  // Takes one item into the cache, which becomes a file first when the item would make it larger than one file.
  // The result is that of the file, if there was one. Within a second of a file that could not be written a full cache
  // refuses without asking the disk, which has said why: producers may come thousands of times a second.
  std::unique_ptr<StorageResult> Add(const Bytes& data);

  // Makes a file of what the cache holds, whenever a write has failed.
  void Sync();

  // The oldest file. A failure is a code; an empty spool gives NotFound.
  std::unique_ptr<StorageResult> Read();

  bool Delete(const StorageResult& read) { return files_.Delete(read); }

  // Deletes the files and empties the cache.
  bool Clear();

  // A result that only says how much room there is.
  [[nodiscard]] std::unique_ptr<StorageResult> MakeResult(StorageCode code) const;
  [[nodiscard]] bool HasFreeSpace() const { return files_.HasFreeSpace(); }
  // What the cache holds, and a payload that waits for the disk.
  [[nodiscard]] std::uint64_t GetHeldBytes() const { return held_bytes_; }

 private:
  [[nodiscard]] bool IsCacheEmpty() const { return unwritten_.empty() && formatter_->Size() == 0; }
  std::unique_ptr<StorageResult> FlushDataCache();
  std::unique_ptr<StorageResult> StoreUnwritten();
  [[nodiscard]] bool HasJustFailed() const;
  void ScheduleSync();
  // Nothing is published with it, and each item comes by: a plain store will do.
  void CountHeldBytes() { held_bytes_.store(unwritten_.size() + formatter_->Size(), std::memory_order_relaxed); }

  const std::unique_ptr<DataFormatter> formatter_;
  SpoolLimits& limits_;
  const std::function<void(std::uint64_t)> schedule_sync_;
  std::function<void()> filed_;
  std::function<void()> dropped_;
  std::function<void()> clearing_;
  util::Clock& clock_;
  SpoolFiles files_;
  // The payload of a flush that failed: it is tried again before the next one, so there is never more than one.
  Bytes unwritten_;
  // Its last failure.
  struct Failure {
    util::Clock::SteadyTime time;
    StorageCode code;
  };
  std::optional<Failure> failure_;
  std::atomic<std::uint64_t> held_bytes_{0};  // of both, as the last operation left them
};

}  // namespace zagent::common::internal
