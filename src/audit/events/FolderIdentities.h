#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/src/util/Clock.h"
#include "src/audit/events/FileIdentity.h"
#include "src/audit/events/FolderTree.h"

namespace zagent::audit::internal {

// Which folder has which path, for folders below watched paths. Audit names a folder as the caller did, who may have
// stood anywhere; its inode tells which one was meant, and here is the path to that. Kept in the order of the records
// while they are parsed, and filled from the disk by FolderScan.
//
// Bounded: the folders that nobody asked for the longest go first. A folder that is renamed takes all below it along.
// Each operation costs a few hash look-ups; the size of what moves or goes along does not count, save for removing and
// for FoldersNearby.
//
// Paths are absolute and normalised; relative ones, those with a slash at their end, and those of more than PATH_MAX
// bytes are not taken. Thread-safe, with a mutex of its own.
class FolderIdentities {
 public:
  static constexpr std::size_t kCapacity = 65'536;
  static constexpr std::size_t kMostNearby = 1'024;
  static constexpr std::chrono::milliseconds kDenialTime{10};

  explicit FolderIdentities(std::size_t capacity = kCapacity, common::util::Clock& clock = common::util::Clock::Real())
      : clock_(clock), tree_(capacity) {}
  FolderIdentities(const FolderIdentities&) = delete;
  FolderIdentities& operator=(const FolderIdentities&) = delete;
  ~FolderIdentities() = default;

  // What is outside these folders is neither known nor taken from now on: nobody hears there of what is renamed or
  // removed. Until the first call everything is taken.
  void Limit(std::vector<std::string> folders);
  // Everything is forgotten: what was known is not to be trusted any more.
  void Clear();

  [[nodiscard]] std::optional<std::string> PathOf(const FileIdentity& folder);
  // What is known of a folder that somebody says is at this path.
  struct Answer {
    bool is_here = false;                  // he is right
    std::optional<std::string> elsewhere;  // it is there instead
    bool is_taken = false;                 // another folder is at this path, or its own path is too long to be told
    bool is_denied = false;                // the disk has denied it right now
  };
  // The path may be empty: nobody says anything.
  [[nodiscard]] Answer Ask(const FileIdentity& folder, std::string_view path);
  // The disk does not have the folder there. Said of the last two only and for kDenialTime: what comes in a burst is of
  // one folder or goes from one to another.
  void Deny(const FileIdentity& folder, std::string_view path);
  // Where something may be that a name alone does not tell: the folders that were used last and, going outwards, those
  // above, below and beside them, for who works through a tree stays in it. kMostNearby at most. Looking in vain costs:
  // the more of that there was within a second, the fewer folders are named.
  [[nodiscard]] std::vector<std::string> FoldersNearby();
  // It was in this one of `nearby`, which counts as used: that was not in vain.
  void FoundNearby(const std::string& path, const std::vector<std::string>& nearby);

  // The folder that is known under this path. Whoever finds another one than he was told of must not trust the path.
  [[nodiscard]] std::optional<FileIdentity> FolderAt(std::string_view path) const;

  // The folder is at this path: it was made there, or seen there. Another one that was known there is forgotten, and if
  // the folder was known elsewhere it moves.
  void Learn(const FileIdentity& folder, std::string_view path);
  // A successful rename of a folder. Another one that was known at `to` is forgotten when it was empty for all that is
  // known, and changes places with the folder when it was not. Two renames, one each way, may be an exchange.
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
  [[nodiscard]] bool Takes(std::string_view path) const;
  void Place(const FileIdentity& folder, std::string_view path);
  void MoveNode(std::string_view from, std::string_view to);

  common::util::Clock& clock_;
  mutable std::mutex mutex_;
  FolderTree tree_;
  std::optional<std::vector<std::string>> limits_;
  std::size_t looks_ = 0;  // that may still be in vain within this second
  common::util::Clock::SteadyTime looks_since_;
  struct {
    std::string from, to;
  } last_rename_;
  struct Denial {
    FileIdentity folder;
    std::string path;
    common::util::Clock::SteadyTime since;
  };
  std::array<Denial, 2> denials_;
  std::size_t oldest_denial_ = 0;
};

}  // namespace zagent::audit::internal
