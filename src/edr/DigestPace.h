#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "common/src/util/Clock.h"
#include "common/src/util/DigestCache.h"

namespace zagent::edr {

// Keeps a large file that is written all the time from being read for each of its events: it is read for its digest
// once in 30 seconds, and the events in between go without one, with one warning a minute that counts them. Files of up
// to 1 MiB, and those whose digest is known as they are, have one in every event.
//
// At most 1,024 files are remembered; beyond that the one that was read the longest ago is forgotten.
//
// For one thread.
class DigestPace {
 public:
  static constexpr std::int64_t kMaxFreeSize = std::int64_t{1024} * 1024;  // bytes
  static constexpr std::chrono::seconds kInterval{30};
  static constexpr std::chrono::minutes kWarningInterval{1};
  static constexpr std::size_t kMaxFiles = 1'024;

  // `cache` is that of those who are asked for the digests. Both outlive this object. `log_prefix` is that of the
  // component that asks.
  DigestPace(common::util::DigestCache& cache, const common::util::Clock& clock, std::string log_prefix)
      : cache_(cache), clock_(clock), log_prefix_(std::move(log_prefix)) {}

  // Whether the file at the path may be asked for its digest now, which counts as reading it. True as well where there
  // is nothing to read.
  [[nodiscard]] bool Admits(const std::string& path);

  [[nodiscard]] common::util::DigestCache& Cache() const { return cache_; }

 private:
  using File = std::pair<dev_t, ino_t>;
  using Time = common::util::Clock::SteadyTime;

  // The first words of its lines.
  [[nodiscard]] const std::string& LogPrefix() const { return log_prefix_; }
  void Refuse(const std::string& path, Time now);
  void MakeRoom();

  common::util::DigestCache& cache_;
  const common::util::Clock& clock_;
  const std::string log_prefix_;
  std::map<File, Time> last_read_;
  std::uint64_t refused_ = 0;  // since the last warning
  std::optional<Time> warned_;
};

}  // namespace zagent::edr
