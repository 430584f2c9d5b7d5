#pragma once

#include <sys/stat.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "src/audit/events/FileIdentity.h"

namespace zagent::audit::internal {

// What the disk said of a few paths. A path has one place, by its hash: whoever comes there last stays.
template <typename Look, std::size_t kPlaces>
class LookTable {
 public:
  // Null when the path was not looked at since Forget, or another took its place since.
  [[nodiscard]] const Look* Find(std::string_view path) const {
    const Place& place = places_.at(IndexOf(path));
    return place.piece == piece_ && place.path == path ? &place.look : nullptr;
  }

  const Look& Keep(const std::string& path, const Look& look) {
    Place& place = places_.at(IndexOf(path));
    place.piece = piece_;
    place.path = path;
    place.look = look;
    return place.look;
  }

  void Forget() { ++piece_; }

 private:
  struct Place {
    std::uint64_t piece = 0;
    std::string path;
    Look look;
  };

  static std::size_t IndexOf(std::string_view path) { return std::hash<std::string_view>()(path) % kPlaces; }

  std::array<Place, kPlaces> places_;
  std::uint64_t piece_ = 1;
};

// What the disk said while one piece of the kernel's records is parsed: a burst names the same few folders, and often
// the same file, again and again, and all of it had happened before the piece was read. That there was nothing is an
// answer too. Belongs to the thread that parses.
struct DiskLooks {
  LookTable<std::optional<FileIdentity>, 16> folders;  // what a path leads to, by links too
  LookTable<std::optional<struct stat>, 64> objects;   // what is at a path, a link itself
  LookTable<std::optional<std::string>, 16> programs;  // the path without links that the name of a program leads to

  // The folder of the path was seen not to be there.
  [[nodiscard]] bool LacksFolderOf(const std::string& path) const {
    const auto* folder = folders.Find(std::string_view(path).substr(0, path.rfind('/')));
    return folder != nullptr && !*folder;
  }

  // Before each piece: what was seen may have changed.
  void Forget() {
    folders.Forget();
    objects.Forget();
    programs.Forget();
  }
};

}  // namespace zagent::audit::internal
