#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "common/src/storage/SqlStorage.h"
#include "common/src/util/Clock.h"
#include "src/health/AHSRecord.h"
#include "src/health/HealthReporter.h"

namespace zagent::health {

// Keeps the statuses of the program in a database until they have been uploaded.
//
// A status that does not differ from the last one of its code and context is dropped. What cannot be written waits in
// memory and is tried again with the next status and the next upload; so does what is reported while a batch is away,
// which a delete of that batch would take along. A database that cannot be opened is no reason to do without what the
// statuses are about: it is logged, and tried again likewise.
//
// Bounds: 1,000 statuses wait in memory and 5,000 rows for upload on disk, and beyond that the oldest go, on disk those
// of the component that has the most, with a warning; rows of other codes are left alone. The last statuses of 1,000
// contexts are known, and beyond that all of them count as new once more.
//
// All operations from any thread; they wait for each other and for the disk.
class HealthStore final : public HealthReporter {
 public:
  static constexpr const char* kFileName = "EDRStatus.db";
  static constexpr std::size_t kMaxWaiting = 1000;
  static constexpr std::int64_t kMaxRows = 5000;
  static constexpr std::size_t kMaxContexts = 1000;

  // Opens or makes the database `name` in `directory`.
  explicit HealthStore(std::string directory, std::string name = kFileName,
                       common::util::Clock& clock = common::util::Clock::Real());
  HealthStore(const HealthStore&) = delete;
  HealthStore& operator=(const HealthStore&) = delete;
  // Writes what waits. No batch may be away any more.
  ~HealthStore() override;

  void Report(HealthStatus status) noexcept override;
  void CountRefused(std::uint64_t documents) noexcept override;
  void CountRemovedFile(std::uint64_t bytes) noexcept override;
  void CountDropped(std::uint64_t events) noexcept override;
  // Of all CountRefused, CountRemovedFile and CountDropped so far.
  [[nodiscard]] std::uint64_t RefusedDocuments() const;
  [[nodiscard]] std::uint64_t RemovedFiles() const;
  [[nodiscard]] std::uint64_t RemovedBytes() const;
  [[nodiscard]] std::uint64_t DroppedEvents() const;

  // What waits in memory. From any thread.
  [[nodiscard]] std::uint64_t GetWaitingBytes() const;

  // The rows that an upload is about to take with it. While it lives, no other row reaches the database.
  class Batch {
   public:
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;
    ~Batch();

    // The rows have arrived: they are not needed any more. When the disk refuses, it is logged, and they are deleted
    // before anything else is read.
    void Delete();

    const std::vector<AHSRecord> records;  // in the order in which they were reported

   private:
    friend class HealthStore;
    Batch(HealthStore& store, std::vector<AHSRecord> taken) : records(std::move(taken)), store_(store) {}
    HealthStore& store_;
  };
  // One batch at a time. Throws std::exception when the database cannot be read.
  Batch TakeBatch();

 private:
  using Key = std::pair<StatusCode, std::string>;
  using Known = std::pair<State, Fields>;

  // With mutex_ held:
  void Keep(HealthStatus status);
  [[nodiscard]] bool IsNews(const HealthStatus& status);
  void Open();
  void Flush();
  void Write();
  void TrimRows();
  [[nodiscard]] std::int64_t CountRows();
  void DeleteSent();
  [[nodiscard]] std::vector<AHSRecord> ReadRows();

  const std::string directory_;
  const std::string name_;
  common::util::Clock& clock_;
  mutable std::mutex mutex_;
  std::unique_ptr<common::SqlStorage> storage_;  // null while the database cannot be opened
  std::map<Key, Known> known_;
  std::deque<AHSRecord> waiting_;
  bool is_batch_away_ = false;
  bool owes_delete_ = false;  // what is in the database has been sent
  std::atomic<std::uint64_t> refused_documents_{0};
  std::atomic<std::uint64_t> removed_files_{0};
  std::atomic<std::uint64_t> removed_bytes_{0};
  std::atomic<std::uint64_t> dropped_events_{0};
};

}  // namespace zagent::health
