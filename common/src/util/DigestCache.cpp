#include "common/src/util/DigestCache.h"

#include <algorithm>
#include <chrono>

namespace zagent::common::util {
namespace {

constexpr std::chrono::seconds kSettleTime{1};

}  // namespace

template <std::size_t Size>
void DigestCache::Digest<Size>::Keep(const std::vector<unsigned char>& digest) {
  if (!Fits(digest)) return;
  std::copy(digest.begin(), digest.end(), bytes.begin());
  is_known = true;
}

template <std::size_t Size>
std::vector<unsigned char> DigestCache::Digest<Size>::Get() const {
  if (!is_known) return {};
  return {bytes.begin(), bytes.end()};
}

std::size_t DigestCache::StateHash::operator()(const FileState& state) const {
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

bool DigestCache::IsSettled(const FileState& file) const {
  const std::chrono::nanoseconds changed =
      std::chrono::seconds(file.changed_s) + std::chrono::nanoseconds(file.changed_ns);
  return std::chrono::nanoseconds(ToNanoseconds(clock_.Now())) - changed > kSettleTime;
}

FileDigests DigestCache::Find(const FileState& file) const {
  const std::lock_guard lock(mutex_);
  const auto known = known_.find(file);
  if (known == known_.end()) return {};
  return {known->second.md5.Get(), known->second.sha1.Get(), known->second.sha256.Get()};
}

std::string DigestCache::FindType(const FileState& file) const {
  const std::lock_guard lock(mutex_);
  const auto known = known_.find(file);
  return known != known_.end() ? std::string(known->second.type) : std::string();
}

void DigestCache::Keep(const FileState& file, const FileDigests& digests) {
  if (!Digest<16>::Fits(digests.md5) && !Digest<20>::Fits(digests.sha1) && !Digest<32>::Fits(digests.sha256)) return;
  const std::lock_guard lock(mutex_);
  Known& known = EntryOf(file);
  known.md5.Keep(digests.md5);
  known.sha1.Keep(digests.sha1);
  known.sha256.Keep(digests.sha256);
}

void DigestCache::KeepType(const FileState& file, const std::string& type) {
  const std::lock_guard lock(mutex_);
  EntryOf(file).type = type;
}

DigestCache::Known& DigestCache::EntryOf(const FileState& state) {
  const auto known = known_.find(state);
  if (known != known_.end()) return known->second;
  if (oldest_first_.size() == kMaxEntries) {
    known_.erase(oldest_first_.front());
    oldest_first_.pop_front();
  }
  oldest_first_.push_back(state);
  return known_.try_emplace(state, &memory_).first->second;
}

}  // namespace zagent::common::util
