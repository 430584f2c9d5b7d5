#include "src/edr/DigestPace.h"

#include <sys/stat.h>

#include <algorithm>

#include "common/src/util/Log.h"

namespace zagent::edr {

bool DigestPace::Admits(const std::string& path) {
  struct stat file {};
  if (stat(path.c_str(), &file) != 0 || !S_ISREG(file.st_mode) || file.st_size <= kMaxFreeSize) return true;
  if (!cache_.Find(file).sha256.empty()) return true;
  const Time now = clock_.SteadyNow();
  const File key{file.st_dev, file.st_ino};
  const auto last = last_read_.find(key);
  if (last != last_read_.end() && now < last->second + kInterval) {
    Refuse(path, now);
    return false;
  }
  if (last == last_read_.end()) MakeRoom();
  last_read_[key] = now;
  return true;
}

void DigestPace::Refuse(const std::string& path, Time now) {
  ++refused_;
  if (warned_ && now < *warned_ + kWarningInterval) return;
  ZLOG_WARNING("DigestPace: " << refused_ << " events without a digest: " << path
                              << " is large and written all the time");
  warned_ = now;
  refused_ = 0;
}

void DigestPace::MakeRoom() {
  if (last_read_.size() < kMaxFiles) return;
  last_read_.erase(std::min_element(last_read_.begin(), last_read_.end(),
                                    [](const auto& one, const auto& other) { return one.second < other.second; }));
}

}  // namespace zagent::edr
