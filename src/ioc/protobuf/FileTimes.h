#pragma once

#include <sys/stat.h>

#include <string>

#include "src/edr/Event.h"
#include "src/edr/process/ImageInfo.h"
#include "src/ioc/protobuf/ReportedObjects.h"

namespace zagent::ioc::internal::protobuf {

// What is known of a file's times, in nanoseconds since the epoch, whole seconds. The creation is asked of the file
// system, while the path still leads to the object: where it tells none, the last change of the inode stands for it.
ReportedObjects::Times TimesOf(const edr::Event& event, const common::ImageInfo& object);
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
