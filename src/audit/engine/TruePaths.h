#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "src/audit/events/FileIdentity.h"
#include "src/audit/events/FolderIdentities.h"
#include "src/audit/events/MountTable.h"
#include "src/edr/Event.h"
#include "src/edr/EventRule.h"

namespace zagent::audit::internal {

// Where the objects of an event really are, for an event whose paths are those that the caller used: a folder is
// reached by links, too. Belongs to the event thread.
class TruePaths {
 public:
  // Either may be null: then only the disk is asked, and the device of a stat is always the record's.
  TruePaths(std::shared_ptr<FolderIdentities> folders, std::shared_ptr<MountTable> mounts)
      : folders_(std::move(folders)), mounts_(std::move(mounts)) {}

  // Other paths of the event's file and, for a rename, of what it became: where the folder that the event names by its
  // inode is known to be, and where the links on the way to it lead, if that is the same folder. None when there is
  // none, or when the event does not tell the folder.
  [[nodiscard]] std::vector<std::string> OfFile(const edr::Event& event) const;
  [[nodiscard]] std::vector<std::string> OfNewFile(const edr::Event& event) const;
  // Other paths of the event's file and, for a rename, of what it became, that lie at the path of this rule or below
  // it.
  struct Names {
    std::optional<std::string> file;
    std::optional<std::string> new_file;
  };
  [[nodiscard]] Names Within(const edr::EventRule& rule, const edr::Event& event) const;
  // Whether the event's file is what this rule of a file is about, under whichever name.
  [[nodiscard]] bool IsFileOf(const edr::EventRule& rule, const edr::Event& event) const;
  // Where the event's file is, if it lies right at the path of this rule of a file or folder, or in that folder; for
  // what was called by a descriptor ("/proc/17/fd/3"), where the descriptor leads while the process is there, too.
  // Nothing for a rename.
  [[nodiscard]] std::optional<std::string> OfFileAt(const edr::EventRule& rule, const edr::Event& event) const;

 private:
  [[nodiscard]] static std::optional<std::string> Below(const edr::EventRule& rule, const std::string& path);
  [[nodiscard]] std::optional<std::string> OfDescriptor(const edr::EventRule& rule, const std::string& path,
                                                        const FileIdentity& file) const;
  [[nodiscard]] bool IsAt(const std::string& path, const FileIdentity& object) const;
  [[nodiscard]] std::vector<std::string> Of(const std::string& path, const std::optional<FileIdentity>& folder) const;

  const std::shared_ptr<FolderIdentities> folders_;
  const std::shared_ptr<MountTable> mounts_;
};

}  // namespace zagent::audit::internal
