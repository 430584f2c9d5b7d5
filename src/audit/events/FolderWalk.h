#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "src/audit/events/FileIdentity.h"
#include "src/audit/events/FolderIdentities.h"
#include "src/audit/events/MountTable.h"
#include "src/audit/events/WatchedFolder.h"

namespace zagent::audit::internal {

// Goes through the watched folders, breadth first and a portion at a time, and tells FolderIdentities what it finds.
// Follows no symbolic link. Enters neither file systems of the kernel's own making nor those that may keep it waiting:
// of /proc, of networks, of user programs, of what would be mounted by the look. What it cannot read it steps over.
//
// Belongs to one thread.
class FolderWalk {
 public:
  FolderWalk(FolderIdentities& identities, MountTable& mounts) : identities_(identities), mounts_(mounts) {}

  // What is watched from now on, in place of what was watched before. New folders are on the list then, and so are
  // those that were not there yet; what is no longer watched is forgotten.
  void Watch(std::vector<WatchedFolder> folders);

  // Forgets what is known and looks at everything anew: records were lost.
  void StartAgain();

  // Opens one folder or looks at a few hundred entries of the open one. False when nothing is left to do.
  bool Step();

 private:
  struct CloseFolder {
    void operator()(DIR* folder) const { closedir(folder); }
  };
  struct OpenFolder {
    std::unique_ptr<DIR, CloseFolder> stream;
    std::string path;
    FileIdentity identity;
    dev_t stat_device = 0;
  };

  void EnterWatched(const WatchedFolder& folder);
  void Enter(const FileIdentity& identity);
  void ReadEntries();
  void TakeEntry(const char* name);
  [[nodiscard]] bool IsMissing(const WatchedFolder& folder) const;
  [[nodiscard]] bool IsWatchedWithContent(const std::string& path) const;

  FolderIdentities& identities_;
  MountTable& mounts_;
  std::vector<WatchedFolder> watched_;
  std::vector<std::string> missing_;  // watched ones that were not there when they were looked at
  std::deque<WatchedFolder> new_;     // watched ones that were not looked at yet
  std::deque<FileIdentity> found_;    // below them; as many as the identities hold at most
  OpenFolder open_;                   // without a stream between two folders
};

}  // namespace zagent::audit::internal
