#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "src/audit/events/FileIdentity.h"

namespace zagent::audit::internal {

// Folders by name within folder, so that a folder takes all below it along when it moves. A node is found by its path
// and, when it has one, by its identity; those above a known folder may be nodes of a name alone.
//
// Bounded: a new node beyond the capacity pushes out the one that was used longest ago. A use counts for all folders
// above it too, so that one never has another below it. Costs about 100 bytes a node, and names of more than 15 bytes
// once more.
//
// Paths are absolute and normalised. The caller serialises.
class FolderTree {
 public:
  using Index = std::uint32_t;  // of a node, until that is removed
  static constexpr Index kNone = UINT32_MAX;
  static constexpr Index kRoot = 0;  // "/", which is always there

  explicit FolderTree(std::size_t capacity);

  // All three answer kNone when there is none.
  [[nodiscard]] Index Find(const FileIdentity& identity) const;
  [[nodiscard]] Index Find(std::string_view path) const;
  [[nodiscard]] Index FindChild(Index parent, std::string_view name) const;

  // Empty for a path of more than PATH_MAX bytes, which no call could name.
  [[nodiscard]] std::string PathOf(Index node) const;
  // As PathOf(node) == path, without the text.
  [[nodiscard]] bool HasPath(Index node, std::string_view path) const;
  [[nodiscard]] Index ParentOf(Index node) const { return nodes_[node].parent; }
  [[nodiscard]] Index FirstChildOf(Index node) const { return nodes_[node].first_child; }
  [[nodiscard]] Index NextSiblingOf(Index node) const { return nodes_[node].next_sibling; }
  // Whether `node` is `folder` or lies below it.
  [[nodiscard]] bool IsWithin(Index node, Index folder) const;
  [[nodiscard]] bool HasContent(Index node) const { return nodes_[node].first_child != kNone; }
  // Inode 0 for a node of a name alone.
  [[nodiscard]] const FileIdentity& IdentityOf(Index node) const { return nodes_[node].identity; }

  // By their last use; the root is always the newest.
  [[nodiscard]] Index Newest() const { return newest_; }
  [[nodiscard]] Index NextOlder(Index node) const { return nodes_[node].older; }

  // A node for a name that its folder does not have yet. kNone when there is no room for it below its own folders.
  Index Add(Index parent, std::string_view name);
  // Finds the path or adds what is missing of it; kNone as Add.
  Index Ensure(std::string_view path);
  // No other node has this identity.
  void SetIdentity(Index node, const FileIdentity& identity);
  // To a name that its new folder does not have; the new folder does not lie within the node.
  void Move(Index node, Index parent, std::string_view name);
  // Two nodes change places, neither within the other.
  void Exchange(Index a, Index b);
  // With all below it, and the folders above it that are left with neither identity nor content. For the root: all.
  void Remove(Index node);
  void Touch(Index node);

  [[nodiscard]] std::size_t Size() const { return size_; }  // with the root
  [[nodiscard]] std::size_t Capacity() const { return capacity_; }

 private:
  struct Node {
    FileIdentity identity;
    std::string name;
    std::uint32_t name_hash = 0;
    Index parent = kNone;
    Index first_child = kNone, next_sibling = kNone, previous_sibling = kNone;
    Index newer = kNone, older = kNone;
    Index next_by_identity = kNone, next_by_name = kNone;  // of the same bucket
  };
  using Link = Index Node::*;
  using Buckets = std::vector<Index>;

  [[nodiscard]] std::uint32_t HashOf(std::string_view name) const;
  [[nodiscard]] std::size_t BucketOf(const FileIdentity& identity) const;
  [[nodiscard]] std::size_t BucketOf(Index parent, std::uint32_t name_hash) const;
  void Chain(Index& bucket, Index node, Link next);
  void Unchain(Index& bucket, Index node, Link next);
  void GrowBuckets();

  void Attach(Index node, Index parent, std::string_view name);
  void Detach(Index node);
  void BecomeNewest(Index node);
  void LeaveAges(Index node);
  bool MakeRoom(Index kept);
  void Free(Index leaf);

  std::size_t capacity_;
  std::uint64_t seed_;  // names come from those who are watched: which of them meet in a bucket is not theirs to choose
  std::size_t size_ = 0;
  std::vector<Node> nodes_;
  Index free_ = kNone;  // chained by next_sibling
  Index newest_ = kNone, oldest_ = kNone;
  Buckets by_identity_, by_name_;  // as many each, a power of two
};

}  // namespace zagent::audit::internal
