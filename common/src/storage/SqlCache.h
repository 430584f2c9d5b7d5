#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "common/src/storage/StorageResult.h"

namespace zagent::common::internal {

// Rows in memory, by table and key, so that a known row costs no read of the database.
//
// Bound: `max_bytes` of rows, keys and bookkeeping. At the bound the rows that were not asked for longest go; they are
// still in the database.
//
// A change that is queued is in the cache before it is in the database. Until it has ended, nothing that somebody reads
// from the database or writes there meanwhile takes the place of what the cache says about its key: it is older.
//
// From any thread; the mutex is held for the map only, neither for a database call nor for a log line.
class SqlCache {
 public:
  static constexpr std::size_t kMaxBytes = std::size_t{2} * 1024 * 1024;
  // What an entry costs beside its row and key.
  static constexpr std::size_t kEntryBytes = 256;

  explicit SqlCache(std::size_t max_bytes = kMaxBytes) : max_bytes_(max_bytes) {}

  // Counts a hit or a miss and writes the statistics line.
  std::optional<Bytes> Find(const std::string& table, const std::string& key);
  // The same without a copy of the row.
  bool Has(const std::string& table, const std::string& key);
  // A key that the database does not have either.
  void CountNotFound();

  // What the database holds now, after a read or a write. No effect while a change of the key is queued.
  void StoreRead(const std::string& table, const std::string& key, const Bytes& row);
  void StoreWritten(const std::string& table, const std::string& key, const Bytes& row);
  // What it holds no longer.
  void Erase(const std::string& table, const std::string& key);
  void Clear(const std::string& table);
  void Clear();

  // A change is about to be queued: a write with its row, a delete without.
  void BeginChange(const std::string& table, const std::string& key, const Bytes* row);
  // And has ended. A failed one leaves no row behind that the database does not have.
  void EndChange(const std::string& table, const std::string& key, bool succeeded);

 private:
  struct Place {
    const std::string* table;
    const std::string* key;
  };
  struct Entry {
    Bytes row;
    std::list<Place>::iterator place;
  };
  using Table = std::unordered_map<std::string, Entry>;
  struct Line;  // what a log line says about a change

  // Calls `take` with the row when it is there, under the mutex. Answers whether it is.
  template <typename Take>
  bool Ask(const std::string& table, const std::string& key, Take take);
  void Store(std::unique_lock<std::mutex>& lock, const std::string& table, const std::string& key, const Bytes& row);
  // With mutex_ held:
  Line Put(const std::string& table, const std::string& key, const Bytes& row);
  Line Remove(const std::string& table, const std::string& key);
  static std::size_t Cost(const std::string& key, const Bytes& row) { return row.size() + key.size() + kEntryBytes; }

  const std::size_t max_bytes_;
  std::mutex mutex_;
  std::map<std::string, Table> tables_;
  std::list<Place> recent_;  // the latest first
  std::map<std::pair<std::string, std::string>, std::size_t> changing_;
  std::size_t row_bytes_ = 0;   // the sum of the cached rows
  std::size_t held_bytes_ = 0;  // and what they cost
  std::uint64_t hits_ = 0;
  std::uint64_t misses_ = 0;
  std::uint64_t writes_ = 0;
  std::uint64_t not_founds_ = 0;
};

}  // namespace zagent::common::internal
