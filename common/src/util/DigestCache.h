#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory_resource>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/src/util/Clock.h"
#include "common/src/util/FileState.h"

namespace zagent::common::util {

// Digests of one file as bytes; one that was not computed is empty.
struct FileDigests {
  std::vector<unsigned char> md5, sha1, sha256;
  bool operator==(const FileDigests&) const = default;
};

// Digests and types of files whose state was seen before, so that a file is read once however many events name it.
// Bounded: at kMaxEntries the oldest entry goes, at about 250 bytes each and its type, which lie together: they stay
// long, and would keep memory that bursts have used from the system if they were spread over it. Thread-safe.
//
// A write through a mapping changes the time when its page first becomes dirty and not at each store after that: as
// with any look at a file, such a writer is seen late.
class DigestCache {
 public:
  static constexpr std::size_t kMaxEntries = 4096;

  explicit DigestCache(Clock& clock = Clock::Real()) : clock_(clock) {}
  DigestCache(const DigestCache&) = delete;
  DigestCache& operator=(const DigestCache&) = delete;
  ~DigestCache() = default;

  // Whether the next write is sure to give `file` another change time. File systems stamp with a clock that ticks a few
  // hundred times a second or less: of two writes within a tick the later one cannot be told. Ask before reading.
  [[nodiscard]] bool IsSettled(const FileState& file) const;

  // What Keep was given for this state; all empty when it is not known.
  [[nodiscard]] FileDigests Find(const FileState& file) const;

  // The textual type that KeepType was given for this state; empty when it is not known.
  [[nodiscard]] std::string FindType(const FileState& file) const;

  // For a file that was settled before it was read and still has this state. Adds to what is known of it. What has not
  // the length of its digest is passed over.
  void Keep(const FileState& file, const FileDigests& digests);
  void KeepType(const FileState& file, const std::string& type);

 private:
  struct StateHash {
    std::size_t operator()(const FileState& state) const;
  };
  template <std::size_t Size>
  struct Digest {
    std::array<unsigned char, Size> bytes{};
    bool is_known = false;
    [[nodiscard]] static bool Fits(const std::vector<unsigned char>& digest) { return digest.size() == Size; }
    void Keep(const std::vector<unsigned char>& digest);
    [[nodiscard]] std::vector<unsigned char> Get() const;
  };
  struct Known {
    explicit Known(std::pmr::memory_resource* memory) : type(memory) {}
    Digest<16> md5;
    Digest<20> sha1;
    Digest<32> sha256;
    std::pmr::string type;
  };
  // The entry of the state, made at the cost of the oldest one. Under the mutex.
  Known& EntryOf(const FileState& state);

  Clock& clock_;
  mutable std::mutex mutex_;
  std::pmr::unsynchronized_pool_resource memory_;
  std::pmr::unordered_map<FileState, Known, StateHash> known_{&memory_};
  std::pmr::deque<FileState> oldest_first_{&memory_};
};

}  // namespace zagent::common::util
