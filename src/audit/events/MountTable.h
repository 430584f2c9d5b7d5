#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "common/src/util/UniqueFd.h"

namespace zagent::audit::internal {

// The mounts of this process' namespace, as <proc root>/self/mountinfo lists them.
//
// Audit's records carry the device of the file system, and so does the table. A stat answers with another one where a
// file system hands out several: for the subvolumes of btrfs and the layers of overlayfs. So on an equal inode the
// device of the mount that holds the path counts as the record's.
//
// The table is read at the first question and again when the kernel says that it has changed. Thread-safe.
class MountTable {
 public:
  struct Mount {
    std::uint64_t device = 0;  // a dev_t as makedev puts it together
    std::string type;          // "ext4", "btrfs"
    bool operator==(const Mount&) const = default;
  };
  // Whether the open table has changed since it was last asked.
  using HasChanged = std::function<bool(int fd)>;

  explicit MountTable(std::string proc_root = "/proc", HasChanged has_changed = PollSaysSo);
  MountTable(const MountTable&) = delete;
  MountTable& operator=(const MountTable&) = delete;
  ~MountTable() = default;

  // The mount that holds an absolute, normalised path, which need not exist; symbolic links are not followed. Nothing
  // for other paths, or when the table cannot be read, which is told once as a warning.
  [[nodiscard]] std::optional<Mount> Find(std::string_view path);

  // One poll of the descriptor that does not wait.
  static bool PollSaysSo(int fd);

 private:
  struct Line;
  class Layers;
  using Mounts = std::map<std::string, Mount, std::less<>>;  // by the path that they are seen at

  bool Read();
  bool Open();
  static std::optional<Line> Parse(std::string_view text);

  const std::string file_;
  const HasChanged has_changed_;
  std::mutex mutex_;
  common::util::UniqueFd fd_;
  bool is_read_ = false;
  bool failure_told_ = false;
  Mounts mounts_;
};

}  // namespace zagent::audit::internal
