#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>

#include "src/audit/events/FileIdentity.h"

namespace zagent::audit::internal {

// What the disk said of folders while one piece of the kernel's records is parsed: a burst names the same few folders
// again and again, and all of it had happened before the piece was read. Belongs to the thread that parses.
class FolderLooks {
 public:
  using Look = std::optional<FileIdentity>;  // nothing: no such folder

  // Null when the folder was not looked at since Forget, or others were since.
  [[nodiscard]] const Look* Find(const std::string& folder) const {
    for (const Entry& entry : entries_) {
      if (entry.is_used && entry.folder == folder) return &entry.look;
    }
    return nullptr;
  }

  // Takes the place of the oldest.
  const Look& Keep(const std::string& folder, const Look& look) {
    Entry& entry = entries_.at(oldest_);
    oldest_ = (oldest_ + 1) % entries_.size();
    entry = {true, folder, look};
    return entry.look;
  }

  // Before each piece: what was seen may have changed.
  void Forget() {
    for (Entry& entry : entries_) entry.is_used = false;
  }

 private:
  struct Entry {
    bool is_used = false;
    std::string folder;
    Look look;
  };
  std::array<Entry, 4> entries_;
  std::size_t oldest_ = 0;
};

}  // namespace zagent::audit::internal
