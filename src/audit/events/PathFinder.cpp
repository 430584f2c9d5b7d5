#include "src/audit/events/PathFinder.h"

#include <utility>
#include <vector>

#include "src/audit/events/Event.h"
#include "src/audit/events/PathResolution.h"

namespace zagent::audit::internal {
namespace {

std::string Join(const std::string& folder, const std::string& name) {
  return folder.ends_with('/') ? folder + name : folder + "/" + name;
}

}  // namespace

// Empty when there is nothing to start from.
std::string PathFinder::AbsoluteText(const std::string& folder) const {
  if (folder.empty() || (folder.front() != '/' && cwd_.empty())) return {};
  std::string text = folder.front() == '/' ? folder : Join(cwd_, folder);
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return NormalisePath(text);
}

bool PathFinder::Confirm(const std::string& folder, const FileIdentity& identity) const {
  const Leads leads = LeadsTo(folder, identity, context_.mounts.get());
  if (leads == Leads::Straight) Remember(folder, identity);
  return leads != Leads::Nowhere;
}

void PathFinder::Remember(const std::string& folder, const FileIdentity& identity) const {
  if (!context_.folders || !IsCanonical(folder)) return;
  const std::optional<std::string> known = context_.folders->PathOf(identity);
  if (known && *known != folder && LeadsTo(*known, identity, context_.mounts.get()) == Leads::Straight) return;
  context_.folders->Learn(identity, folder);
}

std::string PathFinder::PathOfDescriptor(std::int32_t fd) const {
  return fd >= 0 ? DescriptorPath(pid_, fd, context_.proc_root) : std::string();
}

std::optional<std::string> PathFinder::FolderOf(const PathRecord& parent, const PathRecord& object,
                                                const Start& start) const {
  const FileIdentity identity = parent.Identity();
  const std::string text = AbsoluteText(parent.path);
  const auto known = context_.folders ? context_.folders->Ask(identity, text) : FolderIdentities::Answer{};
  if (known.is_here) return text;
  if (!text.empty() && !known.is_denied) {
    if (Confirm(text, identity)) return text;
    if (context_.folders) context_.folders->Deny(identity, text);
  }
  // What is known may have been missed since: a descriptor that still leads there is asked first then.
  if (known.elsewhere && (!start || IsObject(*known.elsewhere, identity))) return known.elsewhere;
  if (start && !object.path.starts_with('/')) {
    std::string folder = PathOfDescriptor(*start);
    if (!folder.empty() && !parent.path.empty() && !parent.path.starts_with('/')) folder = Join(folder, parent.path);
    folder = AbsoluteText(folder);
    if (!folder.empty() && Confirm(folder, identity)) return folder;
  }
  if (known.elsewhere) return known.elsewhere;
  if (parent.path.empty()) {
    if (cwd_.empty()) return std::nullopt;
    if (Confirm(cwd_, identity)) return cwd_;
    std::string found = AbsoluteText(FindUnnamed(parent.inode, "", cwd_));
    // An inode is one of several of its number. Without any knowledge it is as it was found.
    if (context_.folders && !IsObject(found, identity)) return std::nullopt;
    return found;
  }
  if (known.is_taken) return std::nullopt;
  return text.empty() ? parent.path : text;
}

std::string PathFinder::ResolveIn(const std::string& folder, const PathRecord& parent, const PathRecord& object) const {
  if (!object.path.empty()) {
    // Who lives below another root, or came through a link, wrote a path of his own.
    const bool is_elsewhere =
        object.path.starts_with('/') && !parent.path.empty() && folder != AbsoluteText(parent.path);
    const std::string name =
        is_elsewhere ? object.path.substr(object.path.rfind('/') + 1) : NameWithinParent(parent.path, object.path);
    return Event::ResolvePath(cwd_, folder, name);
  }
  if (const auto known = KnownPathOf(object)) return *known;
  return NameUnnamedIn(folder, object);
}

// Where a folder is that was there before the call; a new one may have the inode of one that is gone.
std::optional<std::string> PathFinder::KnownPathOf(const PathRecord& object) const {
  if (object.is_file || object.type_word == TypeWord::Create || !context_.folders) return std::nullopt;
  return context_.folders->PathOf(object.Identity());
}

std::string PathFinder::NameUnnamedIn(const std::string& folder, const PathRecord& object) const {
  // What the call took away is not there any more; an entry of this inode would be another name.
  const std::string name = object.type_word == TypeWord::Delete ? "inode:" + std::to_string(object.inode)
                                                                : FindByInode(object.inode, folder);
  return Event::ResolvePath(cwd_, folder, name);
}

std::optional<std::string> PathFinder::ResolveAlone(const PathRecord& object, const Start& start,
                                                    std::optional<std::int32_t> descriptor) const {
  if (object.path.empty()) return ResolveUnnamed(object, descriptor);
  // The name of a descriptor: its process may close it any moment, so that one look has to tell.
  if (object.path.starts_with("/proc/") && FolderText(object.path).ends_with("/fd/")) {
    auto target = CanonicalPath(object.path);
    if (target && IsAt(*target, object)) return target;
    if (auto known = KnownPathOf(object)) return known;
  }
  if (start && !object.path.starts_with('/')) return ResolveFromDescriptor(object, *start);
  return Event::ResolvePath(cwd_, "", object.path);
}

std::optional<std::string> PathFinder::ResolveUnnamed(const PathRecord& object,
                                                      std::optional<std::int32_t> descriptor) const {
  if (auto known = KnownPathOf(object)) return known;
  if (descriptor) {
    std::string path = PathOfDescriptor(*descriptor);
    if (!path.empty() && IsAt(path, object)) return path;
  }
  // Calls on a descriptor have no working folder on older kernels.
  if (cwd_.empty()) return std::nullopt;
  std::string path = NameUnnamedIn(cwd_, object);
  // The working folder was a guess: without the object there it says nothing of where that is.
  if (context_.folders && !IsAt(path, object)) return std::nullopt;
  return path;
}

std::optional<std::string> PathFinder::ResolveFromDescriptor(const PathRecord& object, std::int32_t fd) const {
  if (auto known = KnownPathOf(object)) return known;
  const std::string folder = PathOfDescriptor(fd);
  if (!folder.empty()) {
    std::string path = NormalisePath(Join(folder, object.path));
    if (IsAt(path, object)) return path;
  }
  std::string written = cwd_.empty() ? std::string() : Event::ResolvePath(cwd_, "", object.path);
  if (!written.empty() && IsAt(written, object)) return written;
  if (context_.folders) {
    const std::vector<std::string> nearby = context_.folders->FoldersNearby();
    for (const std::string& known : nearby) {
      if (!IsAt(Join(known, object.path), object)) continue;
      context_.folders->FoundNearby(known, nearby);
      return NormalisePath(Join(known, object.path));
    }
    return std::nullopt;
  }
  if (written.empty()) return std::nullopt;
  return written;
}

std::string PathFinder::FolderNamedBy(const PathRecord& object, const Start& start) const {
  std::string folder = FolderText(object.path);
  if (folder.starts_with('/')) return folder;
  return (start ? PathOfDescriptor(*start) : cwd_) + "/" + folder;
}

}  // namespace zagent::audit::internal
