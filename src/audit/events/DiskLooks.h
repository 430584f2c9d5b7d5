#pragma once

#include <sys/stat.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "common/src/util/Clock.h"
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

// What the disk said of the files of events that had rested: those of a burst rest as long as each other, and name the
// same file again and again. A look answers for events whose records had been read before it: what they tell of had
// happened by then. Belongs to the thread that looks at rested events again.
//
// Bounds: kPlaces, where whoever comes last stays, and kLongest.
class RestedLooks {
 public:
  static constexpr std::size_t kPlaces = 256;
  static constexpr std::chrono::milliseconds kLongest{100};

  explicit RestedLooks(const common::util::Clock& clock) : clock_(clock) {}

  // When a look begins that is to be kept, and the piece of records that was the newest then.
  struct Beginning {
    common::util::Clock::SteadyTime time;
    std::uint64_t piece = 0;
  };
  [[nodiscard]] Beginning Begin(std::uint64_t newest_piece) const { return {clock_.SteadyNow(), newest_piece}; }

  // For an event of this piece. Null when the path was not looked at since, or too long ago.
  [[nodiscard]] const struct stat* Find(std::string_view path, std::uint64_t piece) const {
    const Look* const look = looks_.Find(path);
    const bool answers =
        look != nullptr && piece <= look->beginning.piece && clock_.SteadyNow() - look->beginning.time < kLongest;
    return answers ? &look->result : nullptr;
  }
  void Keep(const std::string& path, const Beginning& beginning, const struct stat& result) {
    looks_.Keep(path, {beginning, result});
  }

 private:
  struct Look {
    Beginning beginning;
    struct stat result {};
  };

  const common::util::Clock& clock_;
  LookTable<Look, kPlaces> looks_;
};

// What the disk said while one piece of the kernel's records is parsed: a burst names the same few folders, and often
// the same file, again and again, and all of it had happened before the piece was read. That there was nothing is an
// answer too. Belongs to the thread that parses, but for Piece and `rested`.
struct DiskLooks {
  explicit DiskLooks(const common::util::Clock& clock = common::util::Clock::Real()) : rested(clock) {}

  LookTable<std::optional<FileIdentity>, 16> folders;  // what a path leads to, by links too
  LookTable<std::optional<struct stat>, 64> objects;   // what is at a path, a link itself
  LookTable<std::optional<std::string>, 16> programs;  // the path without links that the name of a program leads to
  RestedLooks rested;

  // The folder of the path was seen not to be there.
  [[nodiscard]] bool LacksFolderOf(const std::string& path) const {
    const auto* folder = folders.Find(std::string_view(path).substr(0, path.rfind('/')));
    return folder != nullptr && !*folder;
  }

  // The number of the newest piece. From any thread.
  [[nodiscard]] std::uint64_t Piece() const { return piece_; }

  // Before each piece, when it has been read: what was seen may have changed.
  void Forget() {
    ++piece_;
    folders.Forget();
    objects.Forget();
    programs.Forget();
  }

 private:
  std::atomic<std::uint64_t> piece_{0};
};

}  // namespace zagent::audit::internal
