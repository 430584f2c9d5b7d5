#include "common/src/util/DigestCache.h"

#include <chrono>

namespace zagent::common::util {
namespace {

constexpr std::chrono::seconds kSettleTime{1};

void Merge(std::vector<unsigned char>& known, const std::vector<unsigned char>& digest) {
  if (!digest.empty()) known = digest;
}

}  // namespace

DigestCache::State DigestCache::StateOf(const struct stat& file) {
  return {file.st_dev, file.st_ino, file.st_size, file.st_ctim.tv_sec, file.st_ctim.tv_nsec};
}

std::size_t DigestCache::StateHash::operator()(const State& state) const {
  constexpr std::uint64_t kOddMultiplier = 0x9E3779B97F4A7C15;
  std::uint64_t hash = 0;
  for (const std::uint64_t part :
       {state.device, state.inode, static_cast<std::uint64_t>(state.size), static_cast<std::uint64_t>(state.changed_s),
        static_cast<std::uint64_t>(state.changed_ns)}) {
    hash = (hash ^ part) * kOddMultiplier;
    hash ^= hash >> 32;
  }
  return hash;
}

bool DigestCache::IsSettled(const struct stat& file) const {
  const std::chrono::nanoseconds changed =
      std::chrono::seconds(file.st_ctim.tv_sec) + std::chrono::nanoseconds(file.st_ctim.tv_nsec);
  return std::chrono::nanoseconds(ToNanoseconds(clock_.Now())) - changed > kSettleTime;
}

FileDigests DigestCache::Find(const struct stat& file) const {
  const std::lock_guard lock(mutex_);
  const auto known = digests_.find(StateOf(file));
  return known != digests_.end() ? known->second : FileDigests{};
}

void DigestCache::Keep(const struct stat& file, const FileDigests& digests) {
  const State state = StateOf(file);
  const std::lock_guard lock(mutex_);
  const auto [entry, is_new] = digests_.try_emplace(state);
  Merge(entry->second.md5, digests.md5);
  Merge(entry->second.sha1, digests.sha1);
  Merge(entry->second.sha256, digests.sha256);
  if (!is_new) return;
  oldest_first_.push_back(state);
  if (oldest_first_.size() <= kMaxEntries) return;
  digests_.erase(oldest_first_.front());
  oldest_first_.pop_front();
}

}  // namespace zagent::common::util
