#include "src/audit/routing/ProcessInfo.h"

#include <sys/stat.h>

#include "common/src/util/DeviceText.h"
#include "src/edr/process/NameService.h"

namespace zagent::audit {
namespace {

using common::ImageInfo;
using edr::EventType;

constexpr const char* kDeleted = " (deleted)";

bool HasIdentity(const ImageInfo& image) {
  return image.GetInode() != static_cast<std::uint64_t>(-1);
}

bool IsSameObject(const ImageInfo& image, const struct stat& found) {
  return image.GetInode() == found.st_ino && image.GetDevice() == common::util::DeviceText(found.st_dev);
}

// The kernel appends a word to the name of a program that was removed, and of two looks only one may have come later.
bool IsSameProgram(const std::string& path, const std::string& other) {
  return path == other || path + kDeleted == other || path == other + kDeleted;
}

ImageInfo FindImage(const edr::Event& event, std::int32_t ppid, const common::ProcessTree& tree) {
  const ImageInfo* image = event.GetImage();
  const std::string path = image != nullptr ? image->GetPath() : std::string();
  struct stat found {};
  const bool is_there = image != nullptr && stat(path.c_str(), &found) == 0;
  if (is_there && (!HasIdentity(*image) || IsSameObject(*image, found))) {
    ImageInfo full(path, found);
    full.SetNames(common::UserName(found.st_uid), common::GroupName(found.st_gid));
    return full;
  }
  if (image != nullptr && HasIdentity(*image)) return *image;
  if (tree.Contains(ppid)) {
    const ImageInfo* of_parent = tree.Get(ppid).GetImage();
    if (of_parent != nullptr && IsSameProgram(of_parent->GetPath(), path)) return *of_parent;
  }
  throw common::ProcessInfoException("ProcessInfo cannot find image information for PID: " +
                                     std::to_string(event.GetActorProcessId()) + " (" + path + ")");
}

bool IsProcessEvent(const edr::Event& event) {
  if (event.GetObjectType() != edr::ObjectType::Process) return false;
  if (event.GetType() != EventType::ProcessStart && event.GetType() != EventType::ProcessClone) {
    throw common::ProcessInfoException("ProcessInfo can only be created from a Process Exec or Clone event");
  }
  return true;
}

std::int64_t CreationTimeOf(const edr::Event& event, const common::ProcessTree& tree) {
  const std::int32_t pid = event.GetActorProcessId();
  const bool is_known = event.GetType() == EventType::ProcessStart && tree.Contains(pid);
  return is_known ? tree.Get(pid).GetCreationTime() : event.GetTimestamp();
}

}  // namespace

ProcessInfo::ProcessInfo(const edr::Event& event, const common::ProcessTree& tree)
    : common::ProcessInfo(event.GetActorProcessId(), event.GetActorParentProcessId()),
      auid_(event.GetActorAuid()),
      euid_(event.GetActorEuid()),
      image_(""),
      creation_time_(CreationTimeOf(event, tree)),
      uid_(event.GetActorUserId()) {
  if (IsProcessEvent(event)) {
    arguments_ = event.GetActorProcessArguments();
    cwd_ = event.GetCwd();
  }
  image_ = FindImage(event, GetParent(), tree);
  if (event.HasSecondaryImage()) script_.Get(*event.GetSecondaryImage());
}

void ProcessInfo::Update(const edr::Event& /*event*/) {
  throw common::ProcessInfoException("Update is not implemented");
}

}  // namespace zagent::audit
