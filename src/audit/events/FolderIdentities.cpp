#include "src/audit/events/FolderIdentities.h"

#include <limits.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <unordered_set>
#include <utility>

namespace zagent::audit::internal {
namespace {

constexpr auto kNone = FolderTree::kNone;

// Enough for those who work through trees at the same time.
constexpr std::size_t kStartsNearby = 8;
// How many looks into folders may be in vain in a second, and how many a name has even then. A look costs about a
// microsecond.
constexpr std::size_t kLooksInVain = 8'192;
constexpr std::size_t kFewestNearby = 16;

bool IsUsable(std::string_view path) {
  return path.starts_with('/') && (path.size() == 1 || !path.ends_with('/')) && path.size() <= PATH_MAX;
}

bool IsWithin(std::string_view path, std::string_view folder) {
  if (folder == "/") return true;
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

// "" for what lies in the root.
std::string_view Above(std::string_view path) {
  return path.substr(0, path.rfind('/'));
}

std::string_view NameOf(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

}  // namespace

void FolderIdentities::Limit(std::vector<std::string> folders) {
  const std::lock_guard lock(mutex_);
  limits_ = std::move(folders);
  // What lies outside is found from the root, without entering what lies within.
  std::vector<FolderTree::Index> outside;
  std::deque<FolderTree::Index> looked_at = {FolderTree::kRoot};
  while (!looked_at.empty()) {
    const FolderTree::Index node = looked_at.front();
    looked_at.pop_front();
    const std::string path = tree_.PathOf(node);
    if (Takes(path)) continue;
    const bool leads_within =
        std::any_of(limits_->begin(), limits_->end(), [&](const std::string& limit) { return IsWithin(limit, path); });
    if (!leads_within) {
      outside.push_back(node);
      continue;
    }
    tree_.SetIdentity(node, {});
    for (FolderTree::Index child = tree_.FirstChildOf(node); child != kNone; child = tree_.NextSiblingOf(child)) {
      looked_at.push_back(child);
    }
  }
  // None of them lies above another.
  for (const FolderTree::Index node : outside) tree_.Remove(node);
}

void FolderIdentities::Clear() {
  const std::lock_guard lock(mutex_);
  tree_.Remove(FolderTree::kRoot);
}

std::optional<std::string> FolderIdentities::PathOf(const FileIdentity& folder) {
  if (folder.inode == 0) return std::nullopt;
  const std::lock_guard lock(mutex_);
  const FolderTree::Index node = tree_.Find(folder);
  if (node == kNone) return std::nullopt;
  tree_.Touch(node);
  std::string path = tree_.PathOf(node);
  return path.empty() ? std::nullopt : std::optional(std::move(path));
}

FolderIdentities::Answer FolderIdentities::Ask(const FileIdentity& folder, std::string_view path) {
  Answer answer;
  const std::lock_guard lock(mutex_);
  const FolderTree::Index node = folder.inode == 0 ? kNone : tree_.Find(folder);
  if (node != kNone) {
    tree_.Touch(node);
    answer.is_here = tree_.HasPath(node, path);
    if (answer.is_here) return answer;
    std::string elsewhere = tree_.PathOf(node);
    answer.is_taken = elsewhere.empty();
    if (answer.is_taken) return answer;
    answer.elsewhere = std::move(elsewhere);
  }
  if (!IsUsable(path)) return answer;
  const FolderTree::Index there = tree_.Find(path);
  answer.is_taken = there != kNone && tree_.IdentityOf(there).inode != 0;
  for (const Denial& denial : denials_) {
    if (denial.folder != folder || denial.path != path) continue;
    answer.is_denied = clock_.SteadyNow() - denial.since < kDenialTime;
  }
  return answer;
}

void FolderIdentities::Deny(const FileIdentity& folder, std::string_view path) {
  if (folder.inode == 0) return;
  const std::lock_guard lock(mutex_);
  Denial& denial = denials_.at(oldest_denial_);
  oldest_denial_ = 1 - oldest_denial_;
  denial.folder = folder;
  denial.path = path;
  denial.since = clock_.SteadyNow();
}

std::vector<std::string> FolderIdentities::FoldersNearby() {
  const std::lock_guard lock(mutex_);
  if (const auto now = clock_.SteadyNow(); now - looks_since_ >= std::chrono::seconds(1)) {
    looks_since_ = now;
    looks_ = kLooksInVain;
  }
  const std::size_t most = std::clamp(looks_ * kMostNearby / kLooksInVain, kFewestNearby, kMostNearby);
  std::deque<FolderTree::Index> next;
  std::unordered_set<FolderTree::Index> seen;
  const auto add = [&](FolderTree::Index node) {
    if (node != kNone && seen.size() < most && seen.insert(node).second) next.push_back(node);
  };
  FolderTree::Index node = tree_.Newest();
  for (std::size_t starts = 0; node != kNone && starts < kStartsNearby; node = tree_.NextOlder(node)) {
    // A use counts for the folders above too, which come right before the one that was meant.
    const FolderTree::Index older = tree_.NextOlder(node);
    if (older != kNone && tree_.ParentOf(older) == node) continue;
    add(node);
    ++starts;
  }
  std::vector<std::string> folders;
  for (; !next.empty(); next.pop_front()) {
    node = next.front();
    if (std::string path = tree_.PathOf(node); !path.empty()) folders.push_back(std::move(path));
    for (FolderTree::Index child = tree_.FirstChildOf(node); child != kNone && seen.size() < most;
         child = tree_.NextSiblingOf(child)) {
      add(child);
    }
    if (node != FolderTree::kRoot) add(tree_.ParentOf(node));
  }
  looks_ -= std::min(looks_, folders.size());
  return folders;
}

void FolderIdentities::FoundNearby(const std::string& path, const std::vector<std::string>& nearby) {
  const std::lock_guard lock(mutex_);
  looks_ = std::min(looks_ + nearby.size(), kLooksInVain);
  if (const FolderTree::Index node = tree_.Find(path); node != kNone) tree_.Touch(node);
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
  if (Takes(path)) Place(folder, path);
}

void FolderIdentities::Rename(const FileIdentity& folder, std::string_view from, std::string_view to) {
  if (folder.inode == 0 || !IsUsable(from) || !IsUsable(to)) return;
  const std::lock_guard lock(mutex_);
  const bool is_way_back = last_rename_.from == to && last_rename_.to == from;
  last_rename_ = {std::string(from), std::string(to)};
  if (!Takes(to)) {
    if (const FolderTree::Index node = tree_.Find(folder); node != kNone) tree_.Remove(node);
    return;
  }
  // The other half of an exchange finds at its old path what has just come there.
  if (tree_.Find(folder) == kNone && !is_way_back) {
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
  if (!Takes(a) || !Takes(b)) {
    if (at_a != kNone) tree_.Remove(at_a);
    if (const FolderTree::Index left = tree_.Find(b); left != kNone) tree_.Remove(left);
    return;
  }
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
  if (tree_.PathOf(parent_node).size() + 1 + name.size() > PATH_MAX) return Found::KnownElsewhere;
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

// The caller holds the mutex.
bool FolderIdentities::Takes(std::string_view path) const {
  if (!limits_) return true;
  return std::any_of(limits_->begin(), limits_->end(),
                     [path](const std::string& folder) { return IsWithin(path, folder); });
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
