#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <utility>

#include "common/src/util/Clock.h"
#include "src/edr/LRUCache.h"
#include "src/ioc/protobuf/FileTimes.h"

namespace zagent::ioc::internal::protobuf {

// What was seen of the files that a turn of events names: a burst names the same file again and again. All events of a
// turn had happened before it began, so that a look at a file within it answers for those behind it as well. Belongs to
// the thread that judges.
//
// Bounds: kMaxFiles, of which the one that was asked for the longest ago goes, and kLongest, as a turn may be long.
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

  // Null when the path was not looked at in this turn, or too long ago. Valid until the next call.
  [[nodiscard]] const Look* Find(const std::string& path) {
    const Kept* const kept = looks_.Find(path);
    return kept != nullptr && clock_.SteadyNow() - kept->time < kLongest ? &kept->look : nullptr;
  }
  // `time`: from before the look. Valid until the next call.
  const Look& Keep(const std::string& path, common::util::Clock::SteadyTime time, Look look) {
    looks_.Put(path, {time, std::move(look)});
    return looks_.Find(path)->look;
  }
  // Before each turn: what was seen may have changed.
  void Forget() { looks_.Clear(); }

 private:
  struct Kept {
    common::util::Clock::SteadyTime time;
    Look look;
  };

  const common::util::Clock& clock_;
  edr::LRUCache<std::string, Kept> looks_{kMaxFiles};
};

}  // namespace zagent::ioc::internal::protobuf
