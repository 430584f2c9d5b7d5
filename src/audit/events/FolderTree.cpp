#include "src/audit/events/FolderTree.h"

#include <limits.h>

#include <algorithm>
#include <random>
#include <utility>

namespace zagent::audit::internal {
namespace {

constexpr std::size_t kFirstBuckets = 64;

// Spreads what differs in any bit over the low ones.
std::uint64_t Mix(std::uint64_t value) {
  value ^= value >> 32;
  value *= 0x9e3779b97f4a7c15U;
  value ^= value >> 29;
  value *= 0xbf58476d1ce4e5b9U;
  return value ^ (value >> 32);
}

// Takes the next name off the front of `path`; empty at its end.
std::string_view NextName(std::string_view& path) {
  path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
  const std::string_view name = path.substr(0, path.find('/'));
  path.remove_prefix(name.size());
  return name;
}

}  // namespace

FolderTree::FolderTree(std::size_t capacity)
    : capacity_(std::max<std::size_t>(capacity, 1)),
      seed_(std::uint64_t{std::random_device{}()} << 32 | std::random_device{}()),
      by_identity_(kFirstBuckets, kNone),
      by_name_(kFirstBuckets, kNone) {
  nodes_.emplace_back();
  size_ = 1;
  newest_ = oldest_ = kRoot;
}

FolderTree::Index FolderTree::Find(const FileIdentity& identity) const {
  Index node = by_identity_[BucketOf(identity)];
  while (node != kNone && nodes_[node].identity != identity) node = nodes_[node].next_by_identity;
  return node;
}

FolderTree::Index FolderTree::Find(std::string_view path) const {
  Index node = kRoot;
  for (std::string_view name = NextName(path); !name.empty() && node != kNone; name = NextName(path)) {
    node = FindChild(node, name);
  }
  return node;
}

FolderTree::Index FolderTree::FindChild(Index parent, std::string_view name) const {
  Index node = by_name_[BucketOf(parent, HashOf(name))];
  while (node != kNone && (nodes_[node].parent != parent || nodes_[node].name != name)) {
    node = nodes_[node].next_by_name;
  }
  return node;
}

std::string FolderTree::PathOf(Index node) const {
  if (node == kRoot) return "/";
  std::size_t length = 0;
  for (Index i = node; i != kRoot && length <= PATH_MAX; i = nodes_[i].parent) length += nodes_[i].name.size() + 1;
  if (length > PATH_MAX) return {};
  std::string path(length, '/');
  for (Index i = node; i != kRoot; i = nodes_[i].parent) {
    length -= nodes_[i].name.size();
    nodes_[i].name.copy(&path[length], nodes_[i].name.size());
    --length;
  }
  return path;
}

bool FolderTree::HasPath(Index node, std::string_view path) const {
  if (node == kRoot) return path == "/";
  for (; node != kRoot; node = nodes_[node].parent) {
    const std::string& name = nodes_[node].name;
    if (!path.ends_with(name)) return false;
    path.remove_suffix(name.size());
    if (!path.ends_with('/')) return false;
    path.remove_suffix(1);
  }
  return path.empty();
}

bool FolderTree::IsWithin(Index node, Index folder) const {
  while (node != folder && node != kRoot) node = nodes_[node].parent;
  return node == folder;
}

FolderTree::Index FolderTree::Add(Index parent, std::string_view name) {
  if (size_ >= capacity_ && !MakeRoom(parent)) return kNone;
  Index node = free_;
  if (node != kNone) {
    free_ = nodes_[node].next_sibling;
    nodes_[node].next_sibling = kNone;
  } else {
    node = static_cast<Index>(nodes_.size());
    nodes_.emplace_back();
  }
  ++size_;
  if (size_ > by_name_.size()) GrowBuckets();
  Attach(node, parent, name);
  BecomeNewest(node);
  Touch(parent);
  return node;
}

FolderTree::Index FolderTree::Ensure(std::string_view path) {
  Index node = kRoot;
  for (std::string_view name = NextName(path); !name.empty() && node != kNone; name = NextName(path)) {
    const Index child = FindChild(node, name);
    node = child != kNone ? child : Add(node, name);
  }
  return node;
}

void FolderTree::SetIdentity(Index node, const FileIdentity& identity) {
  if (nodes_[node].identity.inode != 0) {
    Unchain(by_identity_[BucketOf(nodes_[node].identity)], node, &Node::next_by_identity);
  }
  nodes_[node].identity = identity;
  if (identity.inode != 0) Chain(by_identity_[BucketOf(identity)], node, &Node::next_by_identity);
}

void FolderTree::Move(Index node, Index parent, std::string_view name) {
  const std::string new_name(name);  // it may be the node's own
  Detach(node);
  Attach(node, parent, new_name);
  Touch(node);
}

void FolderTree::Exchange(Index a, Index b) {
  const Index a_parent = nodes_[a].parent;
  const Index b_parent = nodes_[b].parent;
  const std::string a_name = nodes_[a].name;
  const std::string b_name = nodes_[b].name;
  Detach(a);
  Detach(b);
  Attach(a, b_parent, b_name);
  Attach(b, a_parent, a_name);
  Touch(a);
  Touch(b);
}

void FolderTree::Remove(Index node) {
  const Index parent = nodes_[node].parent;
  for (Index leaf = node;;) {
    while (nodes_[leaf].first_child != kNone) leaf = nodes_[leaf].first_child;
    const Index above = nodes_[leaf].parent;
    const bool is_last = leaf == node;
    if (leaf == kRoot) return SetIdentity(kRoot, {});
    Free(leaf);
    if (is_last) break;
    leaf = above;
  }
  const Node& left = nodes_[parent];
  if (parent != kRoot && left.identity.inode == 0 && left.first_child == kNone) Remove(parent);
}

void FolderTree::Touch(Index node) {
  for (; node != kRoot; node = nodes_[node].parent) {
    LeaveAges(node);
    BecomeNewest(node);
  }
  LeaveAges(kRoot);
  BecomeNewest(kRoot);
}

std::uint32_t FolderTree::HashOf(std::string_view name) const {
  std::uint64_t hash = seed_;
  for (const char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
  return static_cast<std::uint32_t>(hash ^ (hash >> 32));
}

std::size_t FolderTree::BucketOf(const FileIdentity& identity) const {
  return Mix(identity.inode ^ Mix(identity.device + seed_)) & (by_identity_.size() - 1);
}

std::size_t FolderTree::BucketOf(Index parent, std::uint32_t name_hash) const {
  return Mix(name_hash ^ Mix(parent + seed_)) & (by_name_.size() - 1);
}

void FolderTree::Chain(Index& bucket, Index node, Link next) {
  nodes_[node].*next = bucket;
  bucket = node;
}

void FolderTree::Unchain(Index& bucket, Index node, Link next) {
  Index* link = &bucket;
  while (*link != node) link = &(nodes_[*link].*next);
  *link = nodes_[node].*next;
  nodes_[node].*next = kNone;
}

void FolderTree::GrowBuckets() {
  const std::size_t count = by_name_.size() * 2;
  by_name_.assign(count, kNone);
  by_identity_.assign(count, kNone);
  for (Index node = newest_; node != kNone; node = nodes_[node].older) {
    const Node& kept = nodes_[node];
    if (node != kRoot) Chain(by_name_[BucketOf(kept.parent, kept.name_hash)], node, &Node::next_by_name);
    if (kept.identity.inode != 0) Chain(by_identity_[BucketOf(kept.identity)], node, &Node::next_by_identity);
  }
}

void FolderTree::Attach(Index node, Index parent, std::string_view name) {
  Node& attached = nodes_[node];
  attached.name = name;
  attached.name_hash = HashOf(name);
  attached.parent = parent;
  attached.next_sibling = nodes_[parent].first_child;
  if (attached.next_sibling != kNone) nodes_[attached.next_sibling].previous_sibling = node;
  nodes_[parent].first_child = node;
  Chain(by_name_[BucketOf(parent, attached.name_hash)], node, &Node::next_by_name);
}

void FolderTree::Detach(Index node) {
  Node& detached = nodes_[node];
  Unchain(by_name_[BucketOf(detached.parent, detached.name_hash)], node, &Node::next_by_name);
  if (detached.next_sibling != kNone) nodes_[detached.next_sibling].previous_sibling = detached.previous_sibling;
  if (detached.previous_sibling != kNone) {
    nodes_[detached.previous_sibling].next_sibling = detached.next_sibling;
  } else {
    nodes_[detached.parent].first_child = detached.next_sibling;
  }
  detached.next_sibling = detached.previous_sibling = kNone;
}

void FolderTree::BecomeNewest(Index node) {
  nodes_[node].older = newest_;
  if (newest_ != kNone) nodes_[newest_].newer = node;
  newest_ = node;
  if (oldest_ == kNone) oldest_ = node;
}

void FolderTree::LeaveAges(Index node) {
  Node& left = nodes_[node];
  (left.newer != kNone ? nodes_[left.newer].older : newest_) = left.older;
  (left.older != kNone ? nodes_[left.older].newer : oldest_) = left.newer;
  left.newer = left.older = kNone;
}

// The oldest node has none below it, since they would be older still. False when it is `kept` or a folder above that.
bool FolderTree::MakeRoom(Index kept) {
  Touch(kept);
  if (IsWithin(kept, oldest_)) return false;
  Free(oldest_);
  return true;
}

void FolderTree::Free(Index leaf) {
  SetIdentity(leaf, {});
  Detach(leaf);
  LeaveAges(leaf);
  nodes_[leaf] = {};
  nodes_[leaf].next_sibling = free_;
  free_ = leaf;
  --size_;
}

}  // namespace zagent::audit::internal
