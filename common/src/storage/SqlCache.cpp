#include "common/src/storage/SqlCache.h"

#include <sstream>
#include <tuple>

#include "common/src/util/Log.h"

namespace zagent::common::internal {

// Gathered under the lock, written without it.
struct SqlCache::Line {
  enum class Kind { None, Added, Updated, Deleted };
  Kind kind = Kind::None;
  std::size_t bytes = 0;
  std::size_t rows = 0;
  std::size_t total_kib = 0;

  void Write(const std::string& table) const {
    if (!util::Log::IsEnabled(Poco::Message::PRIO_DEBUG)) return;
    std::ostringstream tail;
    tail << table << ". #Rows = " << rows << ". Total cached data size = " << total_kib << " KB";
    if (kind == Kind::Added) ZLOG_DEBUG("SqlStorage Cache: Adding " << bytes << " bytes to table " << tail.str());
    if (kind == Kind::Updated) ZLOG_DEBUG("SqlStorage Cache: Updating " << bytes << " bytes in table " << tail.str());
    if (kind == Kind::Deleted) ZLOG_DEBUG("SqlStorage Cache: Deleting " << bytes << " bytes from table " << tail.str());
  }
};

template <typename Take>
bool SqlCache::Ask(const std::string& table, const std::string& key, Take take) {
  bool is_there = false;
  std::unique_lock lock(mutex_);
  const auto rows = tables_.find(table);
  if (rows != tables_.end()) {
    const auto entry = rows->second.find(key);
    if (entry != rows->second.end()) {
      is_there = true;
      take(entry->second.row);
      recent_.splice(recent_.begin(), recent_, entry->second.place);
    }
  }
  ++(is_there ? hits_ : misses_);
  const auto [hits, misses, writes, not_founds] = std::tuple(hits_, misses_, writes_, not_founds_);
  lock.unlock();
  ZLOG_DEBUG("SqlStorage Cache: hits: " << hits << ", misses: " << misses << ", writes: " << writes
                                        << ", not founds: " << not_founds);
  return is_there;
}

std::optional<Bytes> SqlCache::Find(const std::string& table, const std::string& key) {
  std::optional<Bytes> found;
  Ask(table, key, [&found](const Bytes& row) { found = row; });
  return found;
}

bool SqlCache::Has(const std::string& table, const std::string& key) {
  return Ask(table, key, [](const Bytes&) {});
}

void SqlCache::CountNotFound() {
  const std::lock_guard lock(mutex_);
  ++not_founds_;
}

void SqlCache::StoreRead(const std::string& table, const std::string& key, const Bytes& row) {
  std::unique_lock lock(mutex_);
  Store(lock, table, key, row);
}

void SqlCache::StoreWritten(const std::string& table, const std::string& key, const Bytes& row) {
  std::unique_lock lock(mutex_);
  ++writes_;
  Store(lock, table, key, row);
}

void SqlCache::Store(std::unique_lock<std::mutex>& lock, const std::string& table, const std::string& key,
                     const Bytes& row) {
  if (changing_.count({table, key}) != 0) return;
  const Line line = Put(table, key, row);
  lock.unlock();
  line.Write(table);
}

void SqlCache::Erase(const std::string& table, const std::string& key) {
  std::unique_lock lock(mutex_);
  const Line line = Remove(table, key);
  lock.unlock();
  line.Write(table);
}

void SqlCache::Clear(const std::string& table) {
  const std::lock_guard lock(mutex_);
  const auto rows = tables_.find(table);
  if (rows == tables_.end()) return;
  while (!rows->second.empty()) Remove(table, rows->second.begin()->first);
}

void SqlCache::Clear() {
  const std::lock_guard lock(mutex_);
  tables_.clear();
  recent_.clear();
  row_bytes_ = 0;
  held_bytes_ = 0;
}

void SqlCache::BeginChange(const std::string& table, const std::string& key, const Bytes* row) {
  std::unique_lock lock(mutex_);
  ++changing_[{table, key}];
  if (row != nullptr) ++writes_;
  const Line line = row != nullptr ? Put(table, key, *row) : Remove(table, key);
  lock.unlock();
  line.Write(table);
}

void SqlCache::EndChange(const std::string& table, const std::string& key, bool succeeded) {
  std::unique_lock lock(mutex_);
  const auto change = changing_.find({table, key});
  if (change != changing_.end() && --change->second == 0) changing_.erase(change);
  if (succeeded) return;
  const Line line = Remove(table, key);
  lock.unlock();
  line.Write(table);
}

SqlCache::Line SqlCache::Put(const std::string& table, const std::string& key, const Bytes& row) {
  // Too large to be kept at all: no older row of the key may stay either.
  if (Cost(key, row) > max_bytes_) return Remove(table, key);
  const auto rows = tables_.try_emplace(table).first;
  const auto [entry, added] = rows->second.try_emplace(key);
  if (added) {
    entry->second.place = recent_.insert(recent_.begin(), Place{&rows->first, &entry->first});
  } else {
    row_bytes_ -= entry->second.row.size();
    held_bytes_ -= Cost(key, entry->second.row);
    recent_.splice(recent_.begin(), recent_, entry->second.place);
  }
  entry->second.row = row;
  row_bytes_ += row.size();
  held_bytes_ += Cost(key, row);
  while (held_bytes_ > max_bytes_) Remove(*recent_.back().table, *recent_.back().key);
  return {added ? Line::Kind::Added : Line::Kind::Updated, row.size(), rows->second.size(), row_bytes_ / 1024};
}

SqlCache::Line SqlCache::Remove(const std::string& table, const std::string& key) {
  const auto rows = tables_.find(table);
  if (rows == tables_.end()) return {};
  const auto entry = rows->second.find(key);
  if (entry == rows->second.end()) return {};
  const std::size_t bytes = entry->second.row.size();
  row_bytes_ -= bytes;
  held_bytes_ -= Cost(key, entry->second.row);
  recent_.erase(entry->second.place);
  rows->second.erase(entry);
  return {Line::Kind::Deleted, bytes, rows->second.size(), row_bytes_ / 1024};
}

}  // namespace zagent::common::internal
