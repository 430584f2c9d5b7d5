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
#include "common/src/util/LinePace.h"

namespace zagent::edr {

// Keeps large files from taking up a component's time, or a disk's, for their digests. A file that is written all the
// time is read once in 30 seconds, and one above 4 GiB never. A hole costs nothing to make, but as much as data to
// read: of holes 4 GiB are read in a minute, over all files. What a file system saves by compressing counts as holes.
// Events beyond that go without a digest, with one warning a minute that counts them. Files of up to 1 MiB, and those
// whose digest is known as they are, have one in every event.
//
// At most 1,024 files are remembered; beyond that the one that was read the longest ago is forgotten.
//
// For one thread.
class DigestPace {
 public:
  static constexpr std::int64_t kMaxFreeSize = std::int64_t{1024} * 1024;          // bytes
  static constexpr std::int64_t kMaxSize = std::int64_t{4} * 1024 * 1024 * 1024;   // bytes
  static constexpr std::int64_t kMaxHoles = std::int64_t{4} * 1024 * 1024 * 1024;  // bytes, in kHolesInterval
  static constexpr std::chrono::seconds kInterval{30};
  static constexpr std::chrono::minutes kHolesInterval{1};
  static constexpr std::size_t kMaxFiles = 1'024;

  // `cache` is that of those who are asked for the digests. Both outlive this object. `log_prefix` is that of the
  // component that asks.
  DigestPace(common::util::DigestCache& cache, const common::util::Clock& clock, std::string log_prefix)
      : cache_(cache), clock_(clock), log_prefix_(std::move(log_prefix)), refusals_(clock) {}

  // Whether the file at the path may be asked for its digest now, which counts as reading it. True as well where there
  // is nothing to read.
  [[nodiscard]] bool Admits(const std::string& path);

  [[nodiscard]] common::util::DigestCache& Cache() const { return cache_; }

 private:
  using File = std::pair<dev_t, ino_t>;
  using Time = common::util::Clock::SteadyTime;

  // The first words of its lines.
  [[nodiscard]] const std::string& LogPrefix() const { return log_prefix_; }
  bool Refuse(const std::string& path, const char* why);
  [[nodiscard]] bool AdmitsHoles(std::int64_t bytes);
  void MakeRoom();

  common::util::DigestCache& cache_;
  const common::util::Clock& clock_;
  const std::string log_prefix_;
  std::map<File, Time> last_read_;
  std::int64_t holes_ = 0;  // bytes, since holes_began_
  std::optional<Time> holes_began_;
  common::util::LinePace refusals_;
};

}  // namespace zagent::edr
