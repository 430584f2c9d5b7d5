#include "src/audit/events/FolderIdentities.h"

namespace zagent::audit::internal {
namespace {

constexpr auto kNone = FolderTree::kNone;

bool IsUsable(std::string_view path) {
  return path.starts_with('/') && (path.size() == 1 || !path.ends_with('/'));
}

// "" for what lies in the root.
std::string_view Above(std::string_view path) {
  return path.substr(0, path.rfind('/'));
}

std::string_view NameOf(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

}  // namespace

std::optional<std::string> FolderIdentities::PathOf(const FileIdentity& folder) {
  if (folder.inode == 0) return std::nullopt;
  const std::lock_guard lock(mutex_);
  const FolderTree::Index node = tree_.Find(folder);
  if (node == kNone) return std::nullopt;
  tree_.Touch(node);
  return tree_.PathOf(node);
}

FolderIdentities::Answer FolderIdentities::Ask(const FileIdentity& folder, std::string_view path) {
  Answer answer;
  const std::lock_guard lock(mutex_);
  const FolderTree::Index node = folder.inode == 0 ? kNone : tree_.Find(folder);
  if (node != kNone) {
    tree_.Touch(node);
    answer.is_here = tree_.HasPath(node, path);
    if (answer.is_here) return answer;
    answer.elsewhere = tree_.PathOf(node);
  }
  if (!IsUsable(path)) return answer;
  const FolderTree::Index there = tree_.Find(path);
  answer.is_taken = there != kNone && tree_.IdentityOf(there).inode != 0;
  return answer;
}

std::optional<std::string> FolderIdentities::FindNewest(std::size_t most,
                                                        const std::function<bool(const std::string& path)>& is_it) {
  const std::lock_guard lock(mutex_);
  FolderTree::Index node = tree_.Newest();
  for (std::size_t tried = 0; tried < most && node != kNone; ++tried, node = tree_.NextOlder(node)) {
    std::string path = tree_.PathOf(node);
    if (!is_it(path)) continue;
    tree_.Touch(node);
    return path;
  }
  return std::nullopt;
}

std::optional<FileIdentity> FolderIdentities::FolderAt(std::string_view path) const {
  if (!IsUsable(path)) return std::nullopt;
  const std::lock_guard lock(mutex_);
  const FolderTree::Index node = tree_.Find(path);
  if (node == kNone || tree_.IdentityOf(node).inode == 0) return std::nullopt;
  return tree_.IdentityOf(node);
}

void FolderIdentities::Learn(const FileIdentity& folder, std::string_view path) {
  if (folder.inode == 0 || !IsUsable(path)) return;
  const std::lock_guard lock(mutex_);
  Place(folder, path);
}

void FolderIdentities::Rename(const FileIdentity& folder, std::string_view from, std::string_view to) {
  if (folder.inode == 0 || !IsUsable(from) || !IsUsable(to)) return;
  const std::lock_guard lock(mutex_);
  if (tree_.Find(folder) == kNone) {
    const FolderTree::Index at_from = tree_.Find(from);
    if (at_from != kNone && at_from != FolderTree::kRoot) {
      // The folder was there, so a nameless node is the folder, and any other object is not there any more.
      if (tree_.IdentityOf(at_from).inode == 0) {
        tree_.SetIdentity(at_from, folder);
      } else {
        tree_.Remove(at_from);
      }
    }
  }
  // Only an empty folder can be replaced: what has content known was exchanged, and its own rename comes next.
  const FolderTree::Index node = tree_.Find(folder);
  const FolderTree::Index at_to = tree_.Find(to);
  if (node != kNone && at_to != kNone && tree_.HasPath(node, from) && tree_.HasContent(at_to) &&
      !tree_.IsWithin(node, at_to) && !tree_.IsWithin(at_to, node)) {
    return tree_.Exchange(node, at_to);
  }
  Place(folder, to);
}

void FolderIdentities::Exchange(std::string_view a, std::string_view b) {
  if (!IsUsable(a) || !IsUsable(b)) return;
  const std::lock_guard lock(mutex_);
  const FolderTree::Index at_a = tree_.Find(a);
  const FolderTree::Index at_b = tree_.Find(b);
  if (at_a == kNone && at_b == kNone) return;
  if (at_a == kNone) return MoveNode(b, a);
  if (at_b == kNone) return MoveNode(a, b);
  if (tree_.IsWithin(at_a, at_b) || tree_.IsWithin(at_b, at_a)) return;
  tree_.Exchange(at_a, at_b);
}

void FolderIdentities::Remove(const FileIdentity& folder) {
  if (folder.inode == 0) return;
  const std::lock_guard lock(mutex_);
  const FolderTree::Index node = tree_.Find(folder);
  if (node != kNone) tree_.Remove(node);
}

void FolderIdentities::Forget(std::string_view path) {
  if (!IsUsable(path)) return;
  const std::lock_guard lock(mutex_);
  const FolderTree::Index node = tree_.Find(path);
  if (node != kNone) tree_.Remove(node);
}

FolderIdentities::Found FolderIdentities::AddFound(const FileIdentity& parent, std::string_view name,
                                                   const FileIdentity& folder) {
  if (parent.inode == 0 || folder.inode == 0 || name.empty()) return Found::KnownElsewhere;
  const std::lock_guard lock(mutex_);
  const FolderTree::Index parent_node = tree_.Find(parent);
  if (parent_node == kNone) return Found::KnownElsewhere;
  FolderTree::Index node = tree_.FindChild(parent_node, name);
  const FolderTree::Index known = tree_.Find(folder);
  if (known != kNone) return known == node ? Found::KnownHere : Found::KnownElsewhere;
  if (node != kNone && tree_.IdentityOf(node).inode != 0) return Found::KnownElsewhere;
  if (node == kNone) {
    if (tree_.Size() >= tree_.Capacity()) return Found::NoRoom;
    node = tree_.Add(parent_node, name);
  }
  tree_.SetIdentity(node, folder);
  return Found::New;
}

std::size_t FolderIdentities::Size() const {
  const std::lock_guard lock(mutex_);
  return tree_.Size();
}

// The caller holds the mutex; nothing is known at `to`.
void FolderIdentities::MoveNode(std::string_view from, std::string_view to) {
  const FolderTree::Index parent = tree_.Ensure(Above(to));
  const FolderTree::Index node = tree_.Find(from);  // it may have gone to make room
  if (node == kNone || node == FolderTree::kRoot) return;
  if (parent == kNone || tree_.IsWithin(parent, node)) return tree_.Remove(node);
  tree_.Move(node, parent, NameOf(to));
}

// The caller holds the mutex.
void FolderIdentities::Place(const FileIdentity& folder, std::string_view path) {
  FolderTree::Index node = tree_.Find(folder);
  if (node != kNone && tree_.HasPath(node, path)) return tree_.Touch(node);
  if (node == FolderTree::kRoot) {  // it has a second place, and the root cannot move there
    tree_.SetIdentity(node, {});
    node = kNone;
  }
  if (const FolderTree::Index there = tree_.Find(path); there != kNone) {
    if (there == FolderTree::kRoot || (node == kNone && tree_.IdentityOf(there).inode == 0)) {
      if (node != kNone) tree_.Remove(node);
      tree_.SetIdentity(there, folder);
      return tree_.Touch(there);
    }
    tree_.Remove(there);
  }
  FolderTree::Index parent = tree_.Ensure(Above(path));
  node = tree_.Find(folder);  // may have gone with what was there before, or to make room
  // A folder cannot lie within itself: what is known of it is out of date.
  if (node != kNone && (parent == kNone || tree_.IsWithin(parent, node))) {
    tree_.Remove(node);
    node = kNone;
    parent = tree_.Ensure(Above(path));
  }
  if (parent == kNone) return;
  if (node != kNone) return tree_.Move(node, parent, NameOf(path));
  node = tree_.Add(parent, NameOf(path));
  if (node != kNone) tree_.SetIdentity(node, folder);
}

}  // namespace zagent::audit::internal
