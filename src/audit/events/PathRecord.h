#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "src/audit/events/FileIdentity.h"
#include "src/edr/RecordFields.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::audit::internal {

// What a PATH record calls its object. Records of old kernels have no such word.
enum class TypeWord : std::uint8_t { None, Parent, Create, Delete, Normal, Unknown };

// As the kernel writes it; empty for None and Unknown.
[[nodiscard]] const char* TextOf(TypeWord word);

// The word of a record as it stands there, whatever it is.
[[nodiscard]] std::string_view TypeWordTextOf(const edr::RecordFields& fields);

// Where to look for an object that no record names, as the first thing to try: "<folder>/<name>", or "inode:<inode>".
[[nodiscard]] std::string FindUnnamed(std::uint64_t inode, const std::string& parent_path, const std::string& cwd);

// What one PATH record says of a file object.
struct PathRecord {
  // A record without a name has an empty path. The slashes behind a name are cut, but for a PARENT's. Throws
  // edr::EventException for a record that describes no file or folder, std::out_of_range for a missing field.
  explicit PathRecord(const edr::RecordFields& fields);
  // As that, but an object without a name is looked for by its inode, in the folder of `parent_path` (the PARENT record
  // seen so far, or empty) or in `cwd`.
  PathRecord(const edr::RecordFields& fields, const std::string& cwd, const std::string& parent_path);

  // Takes what a second record of the same object adds: the path, if this one has none. Throws edr::EventException
  // when the two are different objects.
  void Combine(const PathRecord& other);
  [[nodiscard]] bool IsSameObject(const PathRecord& other) const;
  [[nodiscard]] FileIdentity Identity() const { return {DeviceNumberOf(device), inode}; }

  std::string device;  // "fd:00"
  std::uint64_t item = 0;
  std::uint64_t inode = 0;
  bool is_file = false;  // a folder otherwise; symbolic links count as files
  bool is_symlink = false;
  std::uint32_t group_id = 0;
  std::uint32_t owner_id = 0;
  std::string path;  // as the call gave it: may be relative, empty, or "inode:<number>" when it could not be found
  std::uint32_t permission = 0;
  TypeWord type_word = TypeWord::None;
};

// The object as the record describes it, at `path`, with the names of its owner and group.
[[nodiscard]] common::ImageInfo ImageOf(const PathRecord& record, std::string path, std::string text = "");

}  // namespace zagent::audit::internal
