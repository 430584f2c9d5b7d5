#include "src/edr/DigestPace.h"

#include <sys/stat.h>

#include <algorithm>

#include "common/src/util/Log.h"

namespace zagent::edr {
namespace {

constexpr std::int64_t kBlock = 512;  // bytes of st_blocks, whatever the file system's are

}  // namespace

bool DigestPace::Admits(const std::string& path) {
  struct stat file {};
  if (stat(path.c_str(), &file) != 0 || !S_ISREG(file.st_mode) || file.st_size <= kMaxFreeSize) return true;
  if (!cache_.Find(file).sha256.empty()) return true;
  if (file.st_size > kMaxSize) return Refuse(path, "is larger than 4 GiB");
  const Time now = clock_.SteadyNow();
  const File key{file.st_dev, file.st_ino};
  const auto last = last_read_.find(key);
  if (last != last_read_.end() && now < last->second + kInterval) {
    return Refuse(path, "is large and written all the time");
  }
  if (!AdmitsHoles(file.st_size - std::int64_t{file.st_blocks} * kBlock)) {
    return Refuse(path, "has holes, of which 4 GiB a minute are read");
  }
  if (last == last_read_.end()) MakeRoom();
  last_read_[key] = now;
  return true;
}

bool DigestPace::AdmitsHoles(std::int64_t bytes) {
  if (bytes <= 0) return true;
  const Time now = clock_.SteadyNow();
  if (!holes_began_ || now >= *holes_began_ + kHolesInterval) {
    holes_began_ = now;
    holes_ = 0;
  }
  if (bytes > kMaxHoles - holes_) return false;
  holes_ += bytes;
  return true;
}

// Answers false.
bool DigestPace::Refuse(const std::string& path, const char* why) {
  if (const std::uint64_t refused = refusals_.Take()) {
    ZLOG_WARNING("DigestPace: " << refused << " events without a digest: " << path << ' ' << why);
  }
  return false;
}

void DigestPace::MakeRoom() {
  if (last_read_.size() < kMaxFiles) return;
  last_read_.erase(std::min_element(last_read_.begin(), last_read_.end(),
                                    [](const auto& one, const auto& other) { return one.second < other.second; }));
}

}  // namespace zagent::edr
