#include "src/audit/events/FolderWalk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>
#include <string_view>
#include <utility>

#include "common/src/util/Log.h"
#include "common/src/util/UniqueFd.h"

namespace zagent::audit::internal {
namespace {

using common::util::UniqueFd;

constexpr int kEntriesAStep = 256;

constexpr std::array<std::string_view, 24> kLeftOut = {
    "proc",   "sysfs",  "cgroup",   "cgroup2", "debugfs", "tracefs",   "securityfs", "autofs",
    "nfs",    "nfs4",   "cifs",     "smb3",    "ceph",    "afs",       "coda",       "9p",
    "lustre", "beegfs", "orangefs", "gfs2",    "gpfs",    "glusterfs", "virtiofs",   "ocfs2"};

bool IsLeftOut(const std::optional<MountTable::Mount>& mount) {
  return mount && (mount->type.starts_with("fuse") ||
                   std::find(kLeftOut.begin(), kLeftOut.end(), mount->type) != kLeftOut.end());
}

bool IsWithin(const std::string& path, const std::string& folder) {
  if (folder == "/") return true;
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

bool Covers(const WatchedFolder& watched, const WatchedFolder& other) {
  if (watched.path == other.path) return watched.with_content || !other.with_content;
  return watched.with_content && IsWithin(other.path, watched.path);
}

bool IsCovered(const std::vector<WatchedFolder>& watched, const WatchedFolder& folder) {
  return std::any_of(watched.begin(), watched.end(), [&](const auto& other) { return Covers(other, folder); });
}

std::string Join(const std::string& folder, const char* name) {
  return folder == "/" ? folder + name : folder + "/" + name;
}

UniqueFd OpenForReading(const std::string& path) {
  constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
  UniqueFd fd(open(path.c_str(), kFlags | O_NOATIME));
  if (!fd && errno == EPERM) fd.Reset(open(path.c_str(), kFlags));  // somebody else's folder, without the privilege
  return fd;
}

// What the kernel knows without asking a server or mounting anything. Nothing for what is no folder.
std::optional<FileIdentity> LookAt(int folder, const char* name) {
  struct statx found {};
  const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC | (*name == '\0' ? AT_EMPTY_PATH : 0);
  if (statx(folder, name, flags, STATX_TYPE | STATX_INO, &found) != 0 || !S_ISDIR(found.stx_mode)) return std::nullopt;
  return FileIdentity{makedev(found.stx_dev_major, found.stx_dev_minor), found.stx_ino};
}

}  // namespace

void FolderWalk::Watch(std::vector<WatchedFolder> folders) {
  std::vector<std::string> forgotten;
  for (const WatchedFolder& old : watched_) {
    if (IsCovered(folders, old)) continue;
    identities_.Forget(old.path);
    forgotten.push_back(old.path);
  }
  for (const WatchedFolder& folder : folders) {
    const bool was_lost = std::any_of(forgotten.begin(), forgotten.end(),
                                      [&](const std::string& path) { return IsWithin(folder.path, path); });
    const bool is_known = IsCovered(watched_, folder) && !IsMissing(folder) && !was_lost;
    const auto covers = [&](const WatchedFolder& other) { return other != folder && Covers(other, folder); };
    const bool comes_with_another = std::any_of(folders.begin(), folders.end(), covers);
    const bool is_listed = std::find(new_.begin(), new_.end(), folder) != new_.end();
    if (!is_known && !comes_with_another && !is_listed) new_.push_back(folder);
  }
  std::erase_if(new_, [&](const WatchedFolder& folder) { return !IsCovered(folders, folder); });
  std::vector<std::string> limits;
  for (const WatchedFolder& folder : folders) limits.push_back(folder.path);
  identities_.Limit(std::move(limits));
  missing_.clear();
  watched_ = std::move(folders);
}

void FolderWalk::StartAgain() {
  std::vector<WatchedFolder> folders;
  folders.swap(watched_);
  new_.clear();
  found_.clear();
  open_.stream.reset();
  identities_.Clear();
  Watch(std::move(folders));
}

bool FolderWalk::Step() {
  if (open_.stream) {
    ReadEntries();
  } else if (!new_.empty()) {
    const WatchedFolder next = std::move(new_.front());
    new_.pop_front();
    EnterWatched(next);
  } else if (!found_.empty()) {
    const FileIdentity next = found_.front();
    found_.pop_front();
    Enter(next);
  }
  return open_.stream || !new_.empty() || !found_.empty();
}

void FolderWalk::EnterWatched(const WatchedFolder& folder) {
  const auto mount = mounts_.Find(folder.path);
  if (IsLeftOut(mount)) return;
  const UniqueFd fd = OpenForReading(folder.path);
  auto identity = fd ? LookAt(fd.Get(), "") : std::nullopt;
  if (!identity) {  // a link, whose target is watched too, or not there yet
    missing_.push_back(folder.path);
    return;
  }
  if (mount) identity->device = mount->device;
  // Where the records have told of it meanwhile they are newer than this look.
  if (!identities_.PathOf(*identity)) identities_.Learn(*identity, folder.path);
  if (folder.with_content) found_.push_back(*identity);
}

void FolderWalk::Enter(const FileIdentity& identity) {
  const auto path = identities_.PathOf(identity);
  if (!path || !IsWatchedWithContent(*path)) return;
  UniqueFd fd = OpenForReading(*path);
  const auto there = fd ? LookAt(fd.Get(), "") : std::nullopt;
  if (!there || there->inode != identity.inode) return;  // it moved on, and the records tell where to
  open_.stream.reset(fdopendir(fd.Get()));
  if (!open_.stream) return;
  fd.Release();
  open_.path = *path;
  open_.identity = identity;
  open_.stat_device = there->device;
}

void FolderWalk::ReadEntries() {
  for (int i = 0; i < kEntriesAStep && open_.stream; ++i) {
    const dirent* entry = readdir(open_.stream.get());  // NOLINT(concurrency-mt-unsafe): a stream of its own
    if (entry == nullptr) {
      open_.stream.reset();
    } else if (entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN) {
      TakeEntry(entry->d_name);
    }
  }
}

void FolderWalk::TakeEntry(const char* name) {
  if (std::string_view(name) == "." || std::string_view(name) == "..") return;
  auto folder = LookAt(dirfd(open_.stream.get()), name);
  if (!folder) return;
  bool is_entered = true;
  if (folder->device == open_.stat_device) {
    folder->device = open_.identity.device;
  } else if (const auto mount = mounts_.Find(Join(open_.path, name))) {
    folder->device = mount->device;
    is_entered = !IsLeftOut(mount);
  }
  switch (identities_.AddFound(open_.identity, name, *folder)) {
    case FolderIdentities::Found::New:
    case FolderIdentities::Found::KnownHere:
      if (is_entered) found_.push_back(*folder);
      return;
    case FolderIdentities::Found::KnownElsewhere:
      return;
    case FolderIdentities::Found::NoRoom:
      ZLOG_INFO("More folders below the watched paths than are remembered ("
                << FolderIdentities::kCapacity << "): the others are learned from events");
      open_.stream.reset();
      found_.clear();
      new_.clear();
  }
}

bool FolderWalk::IsMissing(const WatchedFolder& folder) const {
  return std::find(missing_.begin(), missing_.end(), folder.path) != missing_.end();
}

bool FolderWalk::IsWatchedWithContent(const std::string& path) const {
  return IsCovered(watched_, {path, true});
}

}  // namespace zagent::audit::internal
