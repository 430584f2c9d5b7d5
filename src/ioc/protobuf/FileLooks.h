#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "common/src/util/Clock.h"
#include "common/src/util/FileState.h"
#include "src/edr/LRUCache.h"
#include "src/ioc/protobuf/FileTimes.h"

namespace zagent::ioc::internal::protobuf {

// What was seen of the files that events name: a burst names the same file again and again. A look answers for each
// event that knows its file in that very state. All events of a turn had happened before it began, so that a look
// within it answers for those behind it as well, for kLongest, as a turn may be long. Belongs to the thread that
// judges.
//
// Bound: kMaxFiles, of which the one that was asked for the longest ago goes.
class FileLooks {
 public:
  static constexpr std::size_t kMaxFiles = 1'024;
  static constexpr std::chrono::milliseconds kLongest{100};

  // A file whose state was known, with what is told of it.
  struct Look {
    FoundObject found;
    std::string type;
    std::string sha256, sha1, md5;  // in hexadecimal
  };

  explicit FileLooks(const common::util::Clock& clock) : clock_(clock) {}

  // For an event that knows its file in this state, or in none. Null when no look answers. Valid until the next call.
  [[nodiscard]] const Look* Find(const std::string& path, const std::optional<common::util::FileState>& state) {
    const Kept* const kept = looks_.Find(path);
    if (kept == nullptr) return nullptr;
    const bool answers =
        kept->look.found.state == state || (kept->turn == turn_ && clock_.SteadyNow() - kept->time < kLongest);
    return answers ? &kept->look : nullptr;
  }
  // `time`: from before the look. Valid until the next call.
  const Look& Keep(const std::string& path, common::util::Clock::SteadyTime time, Look look) {
    looks_.Put(path, {turn_, time, std::move(look)});
    return looks_.Find(path)->look;
  }
  // What was seen may have changed since.
  void BeginTurn() { ++turn_; }
  void Forget() { looks_.Clear(); }

 private:
  struct Kept {
    std::uint64_t turn;
    common::util::Clock::SteadyTime time;
    Look look;
  };

  const common::util::Clock& clock_;
  edr::LRUCache<std::string, Kept> looks_{kMaxFiles};
  std::uint64_t turn_ = 0;
};

}  // namespace zagent::ioc::internal::protobuf
