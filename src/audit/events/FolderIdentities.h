#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "src/audit/events/FileIdentity.h"
#include "src/audit/events/FolderTree.h"

namespace zagent::audit::internal {

// Which folder has which path, for folders below watched paths. Audit names a folder as the caller did, who may have
// stood anywhere; its inode tells which one was meant, and here is the path to that. Kept in the order of the records
// while they are parsed, and filled from the disk by FolderScan.
//
// Bounded: the folders that nobody asked for the longest go first. A folder that is renamed takes all below it along.
// Each operation costs a few hash look-ups; the size of what moves or goes along does not count, save for removing.
//
// Paths are absolute and normalised; relative ones, and those with a slash at their end, are not taken. Thread-safe,
// with a mutex of its own.
class FolderIdentities {
 public:
  static constexpr std::size_t kCapacity = 65'536;

  explicit FolderIdentities(std::size_t capacity = kCapacity) : tree_(capacity) {}
  FolderIdentities(const FolderIdentities&) = delete;
  FolderIdentities& operator=(const FolderIdentities&) = delete;
  ~FolderIdentities() = default;

  [[nodiscard]] std::optional<std::string> PathOf(const FileIdentity& folder);
  // What is known of a folder that somebody says is at this path.
  struct Answer {
    bool is_here = false;                  // he is right
    std::optional<std::string> elsewhere;  // it is there instead
    bool is_taken = false;                 // another folder is at this path
  };
  // The path may be empty: nobody says anything.
  [[nodiscard]] Answer Ask(const FileIdentity& folder, std::string_view path);
  // The first of the folders that were used last, newest first and those above another before it, for which `is_it`
  // answers true; counts as a use. At most `most` are tried. The mutex is held: `is_it` must not call back.
  [[nodiscard]] std::optional<std::string> FindNewest(std::size_t most,
                                                      const std::function<bool(const std::string& path)>& is_it);

  // The folder that is known under this path. Whoever finds another one than he was told of must not trust the path.
  [[nodiscard]] std::optional<FileIdentity> FolderAt(std::string_view path) const;

  // The folder is at this path: it was made there, or seen there. Another one that was known there is forgotten, and if
  // the folder was known elsewhere it moves.
  void Learn(const FileIdentity& folder, std::string_view path);
  // A successful rename of a folder. Another one that was known at `to` is forgotten when it was empty for all that is
  // known, and changes places with the folder when it was not.
  void Rename(const FileIdentity& folder, std::string_view from, std::string_view to);
  // Two paths whose objects, folders or not, changed places.
  void Exchange(std::string_view a, std::string_view b);
  // The folder is gone, with all that was known below it.
  void Remove(const FileIdentity& folder);
  // What is known at this path and below is no longer of interest.
  void Forget(std::string_view path);

  enum class Found { New, KnownHere, KnownElsewhere, NoRoom };
  // What a look at the disk has found in a folder. Older than what the records told, so it only adds: a folder or a
  // name that is known already stays as it is. KnownElsewhere also when `parent` is not known any more.
  Found AddFound(const FileIdentity& parent, std::string_view name, const FileIdentity& folder);

  // Nodes of the tree: the known folders, and those above them by name.
  [[nodiscard]] std::size_t Size() const;

 private:
  void Place(const FileIdentity& folder, std::string_view path);
  void MoveNode(std::string_view from, std::string_view to);

  mutable std::mutex mutex_;
  FolderTree tree_;
};

}  // namespace zagent::audit::internal
