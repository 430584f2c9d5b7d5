#pragma once

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "common/src/util/DeviceText.h"
#include "src/audit/events/FileContext.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::fuzz {

// Folders and files of the recorded records, below a temporary folder: names that the input writes below /srv mean
// objects of this tree, and the inodes that the recording gave them are theirs. So records can be confirmed by the
// disk, contradict it, or tell of what it does not have.
//
// One for the process, as it was made: nothing that is fed changes it.
class RecordedTree {
 public:
  static const RecordedTree& Get() {
    static const RecordedTree tree;
    return tree;
  }

  // The first byte of an input chooses what its events are built with; its text begins behind that.
  //   '0'  nothing but what the disk says      '1'  known folders, and mounts
  //   '2'  as '0', with extended coverage      '3'  as '1', with extended coverage
  // Known are the folders of this tree, one of them elsewhere than it is, and two that the disk does not have. There is
  // room for few more.
  [[nodiscard]] audit::internal::FileContext ContextOf(std::uint8_t choice) const {
    audit::internal::FileContext context;
    context.proc_root = root_ / "proc";
    context.extended_coverage = (choice & 2U) != 0;
    if ((choice & 1U) == 0) return context;
    context.mounts = mounts_;
    context.folders = std::make_shared<audit::internal::FolderIdentities>(kRoom);
    for (const Object& object : kObjects) {
      const std::uint64_t inode = std::stoull(InodeOf(object.recorded_inode));
      if (object.known_at != nullptr) context.folders->Learn({device_, inode}, root_ / object.known_at);
    }
    return context;
  }

  // "/srv/w/f" of a recording, in this tree. Other names stay as they are.
  [[nodiscard]] std::string NameOf(std::string_view name) const {
    std::string here = name.starts_with("/srv") ? root_.Path() : std::string();
    return here.append(name);
  }
  // The inode of the object that had this one when it was recorded; the same when there is none.
  [[nodiscard]] std::string InodeOf(std::string_view recorded) const {
    const auto found = inodes_.find(recorded);
    return found != inodes_.end() ? found->second : std::string(recorded);
  }
  // The recording was made on one file system.
  [[nodiscard]] std::string DeviceOf(std::string_view recorded) const {
    return recorded == "00:02" ? common::util::DeviceText(device_) : std::string(recorded);
  }

 private:
  struct Object {
    const char* recorded_inode;
    const char* name;      // on the disk; null: not there
    const char* known_at;  // as a folder; null: not known
  };
  static constexpr std::array kObjects = {
      Object{"366", "srv", "srv"},
      Object{"367", "srv/moved", "srv/w/moved"},
      Object{"368", "srv/w", "srv/w"},
      Object{"369", "srv/w/deep", "srv/w/deep"},
      Object{"91", "srv/w", nullptr},  // as another recording numbered it
      Object{"371", "srv/w/utime.a", nullptr},
      Object{"372", "srv/w/utime.c", nullptr},
      Object{"510", nullptr, "srv/w/slashed-rmdir"},
      Object{"512", nullptr, "srv/w/slashed-rename"},
  };
  static constexpr std::size_t kRoom = 24;

  RecordedTree() {
    namespace fs = std::filesystem;
    for (const char* folder : {"proc/self", "srv/moved", "srv/w/deep"}) fs::create_directories(root_ / folder);
    for (const char* file : {"srv/w/utime.a", "srv/w/utime.c"}) root_.Write(file, "recorded");
    fs::create_directory_symlink("w/deep", root_ / "srv/link");
    for (const Object& object : kObjects) {
      if (object.name == nullptr) continue;
      struct stat found {};
      if (lstat((root_ / object.name).c_str(), &found) != 0) throw std::runtime_error("no recorded tree");
      inodes_[object.recorded_inode] = std::to_string(found.st_ino);
      device_ = found.st_dev;
    }
    // One folder's records carry another device than a stat tells, as in a subvolume.
    root_.Write("proc/self/mountinfo", "21 1 " + std::to_string(major(device_)) + ":" + std::to_string(minor(device_)) +
                                           " / / rw - ext4 /dev/vda1 rw\n30 21 0:45 /@deep " + (root_ / "srv/w/deep") +
                                           " rw - btrfs /dev/vdb rw,subvol=/@deep\n");
    mounts_ = std::make_shared<audit::internal::MountTable>(root_ / "proc", [](int) { return false; });
  }

  fakes::TempFolder root_;
  dev_t device_ = 0;
  std::map<std::string, std::string, std::less<>> inodes_;  // here, by the recorded one
  std::shared_ptr<audit::internal::MountTable> mounts_;
};

}  // namespace zagent::fuzz
