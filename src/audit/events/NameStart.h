#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "src/audit/events/PathRecord.h"

namespace zagent::audit::internal {

// Where one name of a call starts from when it is relative: at a descriptor that the call was given, or in the working
// folder. Audit names the working folder in both cases, so what a descriptor stands for is looked up in procfs and
// believed only if it leads to the recorded inode: by then the process may be gone or the descriptor another one.
struct NameStart {
  std::string cwd;
  std::int32_t pid = 0;
  std::optional<std::int32_t> fd;

  // The folder that the PARENT record of `object` means, absolute or relative to the working folder.
  [[nodiscard]] std::string FolderOf(const PathRecord& parent, const PathRecord& object) const;
  // The absolute path of `object` in `folder`, which FolderOf found for `parent`.
  [[nodiscard]] std::string ResolveIn(const std::string& folder, const PathRecord& parent,
                                      const PathRecord& object) const;
  // The absolute path of an object whose folder no record names.
  [[nodiscard]] std::string ResolveAlone(const PathRecord& object) const;
  // The folder part of the object's name, below where it starts.
  [[nodiscard]] std::string FolderNamedBy(const PathRecord& object) const;

 private:
  [[nodiscard]] std::string DescriptorFolderFor(const PathRecord& object) const;
};

}  // namespace zagent::audit::internal
