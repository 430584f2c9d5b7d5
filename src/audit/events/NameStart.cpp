#include "src/audit/events/NameStart.h"

#include "src/audit/events/Event.h"
#include "src/audit/events/PathResolution.h"

namespace zagent::audit::internal {

// Empty when the name does not start at a descriptor, or at one that nobody knows any more.
std::string NameStart::DescriptorFolderFor(const PathRecord& object) const {
  return fd && !object.path.starts_with('/') ? DescriptorPath(pid, *fd) : std::string();
}

std::string NameStart::FolderOf(const PathRecord& parent, const PathRecord& object) const {
  if (!fd) return parent.path;
  const bool absolute = parent.path.starts_with('/');
  if (IsObjectAt(absolute ? parent.path : cwd + "/" + parent.path, parent.device, parent.inode)) return parent.path;
  std::string folder = DescriptorFolderFor(object);
  if (folder.empty()) return parent.path;
  if (!absolute) folder += "/" + parent.path;
  return IsObjectAt(folder, parent.device, parent.inode) ? folder : parent.path;
}

std::string NameStart::ResolveIn(const std::string& folder, const PathRecord& parent, const PathRecord& object) const {
  return Event::ResolvePath(cwd, folder, NameWithinParent(parent.path, object.path));
}

std::string NameStart::ResolveAlone(const PathRecord& object) const {
  std::string path = Event::ResolvePath(cwd, "", object.path);
  if (!fd || IsObjectAt(path, object.device, object.inode)) return path;
  const std::string folder = DescriptorFolderFor(object);
  if (folder.empty()) return path;
  std::string candidate = NormalisePath(folder + "/" + object.path);
  return IsObjectAt(candidate, object.device, object.inode) ? candidate : path;
}

std::string NameStart::FolderNamedBy(const PathRecord& object) const {
  std::string folder = FolderText(object.path);
  if (folder.starts_with('/')) return folder;
  return (fd ? DescriptorPath(pid, *fd) : cwd) + "/" + folder;
}

}  // namespace zagent::audit::internal
