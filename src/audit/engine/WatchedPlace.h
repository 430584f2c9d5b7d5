#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>

#include "src/audit/events/FileIdentity.h"
#include "src/edr/EventRule.h"

namespace zagent::audit::internal {

// Where rules need something to be: the path of rules of a folder, or that of rules of a file.
struct WatchedPlace {
  edr::ObjectType type = edr::ObjectType::Directory;
  std::string path;  // tidy
  auto operator<=>(const WatchedPlace&) const = default;
};

// What the kernel watches for rules of a place. It does not follow a link that stands at the place of a folder.
struct WatchedObject {
  FileIdentity object;  // the folder or the link; of a file the folder that it is to be in
  // When it was made, in nanoseconds since the epoch: an inode number is given again. 0 where nobody knows.
  std::int64_t born = 0;
  std::optional<std::string> target;  // the folder that the link leads to, with its real path
  FileIdentity target_object;
};

// What stands at a place now.
struct Sight {
  enum class State : std::uint8_t {
    There,
    Gone,     // nothing, or nothing that can be watched
    Unknown,  // the file system does not answer
  };
  WatchedPlace place;
  State state = State::Unknown;
  WatchedObject object;  // when it is there
};

// Asks the disk, which may take as long as a file system that has lost its server lets it wait: not with a lock.
[[nodiscard]] Sight LookAt(const WatchedPlace& place);

}  // namespace zagent::audit::internal
