#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include "src/edr/TextHash.h"

namespace zagent::edr {

class LRUCacheException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

template <typename Key>
using LRUHash = std::conditional_t<std::is_same_v<Key, std::string>, TextHash, std::hash<Key>>;

// Holds at most `capacity` entries: a new one takes the place of the one that nobody asked for the longest. One thread.
template <typename Key, typename Value>
class LRUCache {
 public:
  explicit LRUCache(std::size_t capacity) : capacity_(capacity) {}
  LRUCache(const LRUCache&) = delete;
  LRUCache& operator=(const LRUCache&) = delete;
  ~LRUCache() = default;

  [[nodiscard]] std::size_t GetSize() const { return entries_.size(); }
  // Does not count as asking for the entry.
  [[nodiscard]] bool Contains(const Key& key) const { return entries_.count(key) != 0; }

  // Enters a value or replaces the one of the key.
  void Put(const Key& key, Value value) {
    if (Value* const known = Find(key)) {
      *known = std::move(value);
      return;
    }
    if (capacity_ == 0) return;
    if (entries_.size() >= capacity_) Erase(*keys_.back());
    Keys newest(1, nullptr);
    newest.front() = &entries_.emplace(key, Entry{newest.begin(), std::move(value)}).first->first;
    keys_.splice(keys_.begin(), newest);
  }

  // Null for a key that is not there. The value lives until its entry goes.
  template <typename Asked>
  [[nodiscard]] Value* Find(const Asked& key) {
    const auto found = entries_.find(key);
    if (found == entries_.end()) return nullptr;
    keys_.splice(keys_.begin(), keys_, found->second.position);
    return &found->second.value;
  }
  // Throws LRUCacheException "Accessing key failed from cache memory" where Find answers null.
  [[nodiscard]] Value& Get(const Key& key) {
    Value* const value = Find(key);
    if (value == nullptr) throw LRUCacheException("Accessing key failed from cache memory");
    return *value;
  }

  // Takes a value out; throws as Get does.
  [[nodiscard]] Value Take(const Key& key) {
    Value value = std::move(Get(key));
    Erase(key);
    return value;
  }

  // A key that is not there is no error.
  void Erase(const Key& key) {
    const auto found = entries_.find(key);
    if (found == entries_.end()) return;
    keys_.erase(found->second.position);
    entries_.erase(found);
  }

  void Clear() {
    keys_.clear();
    entries_.clear();
  }

 private:
  // The table alone holds the keys, which may be long texts.
  using Keys = std::list<const Key*>;
  struct Entry {
    typename Keys::iterator position;
    Value value;
  };

  const std::size_t capacity_;
  Keys keys_;  // the latest asked for in front
  std::unordered_map<Key, Entry, LRUHash<Key>, std::equal_to<>> entries_;
};

}  // namespace zagent::edr
