#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "src/audit/events/FileContext.h"
#include "src/audit/events/PathRecord.h"
#include "src/audit/events/PathResolution.h"

namespace zagent::audit::internal {

// Finds the paths that one call meant, from the names and inodes that its records tell.
//
// A relative name starts at a descriptor that the call was given, or in the working folder. Audit names the working
// folder in both cases, so a name alone is not believed: a folder is where its inode is known to be, where the disk
// confirms it, or where a descriptor of the process leads while the process is there. What is found out about folders
// goes to the context's FolderIdentities.
//
// Answers nothing when the name is known to mean another object: a path without trust is not reported. Where nothing is
// known, the name is taken as it is written.
class PathFinder {
 public:
  // Where a relative name starts: at this descriptor, or in the working folder.
  using Start = std::optional<std::int32_t>;

  // All of them outlive the finder.
  PathFinder(const FileContext& context, const std::string& cwd, std::int32_t pid)
      : context_(context), cwd_(cwd), pid_(pid) {}

  // The folder that the PARENT record of `object` means; relative to the working folder only as it is written.
  [[nodiscard]] std::optional<std::string> FolderOf(const PathRecord& parent, const PathRecord& object,
                                                    const Start& start) const;
  // The absolute path of `object` in `folder`, which FolderOf found for `parent`. An object that no record names is
  // found by its inode, or called by it. Throws edr::EventException for a relative path without a working folder.
  [[nodiscard]] std::string ResolveIn(const std::string& folder, const PathRecord& parent,
                                      const PathRecord& object) const;
  // The absolute path of an object whose folder no record tells. `descriptor` is that of the object itself, if the call
  // was given one. Throws as ResolveIn.
  [[nodiscard]] std::optional<std::string> ResolveAlone(const PathRecord& object, const Start& start,
                                                        std::optional<std::int32_t> descriptor) const;
  // The folder part of the object's name, below where it starts.
  [[nodiscard]] std::string FolderNamedBy(const PathRecord& object, const Start& start) const;

  // Keeps where the disk has a folder. Not under a path through a link, which is one of several, nor under a further
  // one (a bind mount) of a folder that is still where it is known to be.
  void Remember(const std::string& folder, const FileIdentity& identity) const;

  [[nodiscard]] bool IsAt(const std::string& path, const PathRecord& object) const {
    return IsObject(path, object.Identity());
  }

 private:
  [[nodiscard]] std::string AbsoluteText(const std::string& folder) const;
  [[nodiscard]] bool IsObject(const std::string& path, const FileIdentity& identity) const {
    return LeadsTo(path, identity, context_.mounts.get()) != Leads::Nowhere;
  }
  // Whether the disk has this folder there.
  [[nodiscard]] bool Confirm(const std::string& folder, const FileIdentity& identity) const;
  [[nodiscard]] std::string PathOfDescriptor(std::int32_t fd) const;
  [[nodiscard]] std::optional<std::string> KnownPathOf(const PathRecord& object) const;
  [[nodiscard]] std::string NameUnnamedIn(const std::string& folder, const PathRecord& object) const;
  [[nodiscard]] std::optional<std::string> ResolveUnnamed(const PathRecord& object,
                                                          std::optional<std::int32_t> descriptor) const;
  [[nodiscard]] std::optional<std::string> ResolveFromDescriptor(const PathRecord& object, std::int32_t fd) const;

  const FileContext& context_;
  const std::string& cwd_;
  const std::int32_t pid_;
};

}  // namespace zagent::audit::internal
