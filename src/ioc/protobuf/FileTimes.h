#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>

#include "common/src/util/FileState.h"
#include "src/edr/Event.h"
#include "src/edr/process/ImageInfo.h"
#include "src/ioc/protobuf/ReportedObjects.h"

namespace zagent::ioc::internal::protobuf {

// What a path leads to by now; a link is told of itself.
struct FoundObject {
  std::string device;
  std::uint64_t inode = 0;
  std::uint32_t mode = 0;
  std::int64_t size = 0;                      // bytes
  std::optional<std::int64_t> creation = {};  // ns since the epoch, whole seconds
  common::util::FileState state{};
};
// Nothing when there is nothing.
std::optional<FoundObject> LookAt(const std::string& path);

// What is known of a file's times, in nanoseconds since the epoch, whole seconds. The creation is asked of the file
// system, while the path still leads to the object: where it tells none, the last change of the inode stands for it.
ReportedObjects::Times TimesOf(const edr::Event& event, const common::ImageInfo& object,
                               const std::optional<FoundObject>& found);
ReportedObjects::Times TimesOf(const std::string& path, const struct stat& stat);

// Sets the four fields that file and directory have in common.
template <typename Message>
void SetTimes(const ReportedObjects::Times& times, Message& message) {
  message.set_creationtime(times.creation);
  message.set_lastwritetime(times.write);
  message.set_lastaccesstime(times.access);
  message.set_lastchangetime(times.change);
}

}  // namespace zagent::ioc::internal::protobuf
