#pragma once

#include <cstddef>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "common/src/util/Log.h"
#include "src/edr/process/ProcessInfo.h"

namespace zagent::common {

class GenericProcessTreeException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Live processes by id, with their parent links. Info is ProcessInfo or derives from it; Pointer owns one: unique_ptr,
// or shared_ptr where others keep what the tree forgets. One thread. Has no bound of its own: its owner sees to what is
// gone.
template <typename Info, typename Pointer = std::unique_ptr<Info>>
class GenericProcessTree {
 public:
  [[nodiscard]] bool Contains(std::int32_t pid) const { return processes_.count(pid) != 0; }
  [[nodiscard]] std::size_t GetSize() const { return processes_.size(); }

  // Throws GenericProcessTreeException "ProcessInfo for pid <pid> does not exist".
  [[nodiscard]] Info& Get(std::int32_t pid) const { return *GetPointer(pid); }
  [[nodiscard]] const Pointer& GetPointer(std::int32_t pid) const;

  // All processes, in no order.
  [[nodiscard]] std::vector<std::int32_t> GetPids() const;

  // Replaces an entry of the same pid, whose children move under process 1. A parent that is not in the tree becomes
  // kNoParent. Children that the info names already become its own, wherever they hung; those that are not in the tree
  // are forgotten.
  void Add(Pointer info);

  // Children move under process 1. An unknown pid is no error; a pid below 1 throws std::invalid_argument.
  void Delete(std::int32_t pid);

  // The process itself and everything above it, nearest first; empty when the pid is not in the tree. A pid below 1
  // throws std::invalid_argument. A loop in the parent links ends the walk.
  [[nodiscard]] std::vector<const Info*> GetAncestors(std::int32_t pid) const;
  // Whether one of them fulfils a condition, which is asked of one after the other; without memory for a list.
  template <typename Condition>
  [[nodiscard]] bool AnyAncestor(std::int32_t pid, Condition condition) const;

 private:
  void AdoptChildren(Info& info);

  std::unordered_map<std::int32_t, Pointer> processes_;
};

using ProcessTree = GenericProcessTree<ProcessInfo>;

template <typename Info, typename Pointer>
const Pointer& GenericProcessTree<Info, Pointer>::GetPointer(std::int32_t pid) const {
  const auto found = processes_.find(pid);
  if (found == processes_.end()) {
    throw GenericProcessTreeException("ProcessInfo for pid " + std::to_string(pid) + " does not exist");
  }
  return found->second;
}

template <typename Info, typename Pointer>
std::vector<std::int32_t> GenericProcessTree<Info, Pointer>::GetPids() const {
  std::vector<std::int32_t> pids;
  pids.reserve(processes_.size());
  for (const auto& entry : processes_) pids.push_back(entry.first);
  return pids;
}

template <typename Info, typename Pointer>
void GenericProcessTree<Info, Pointer>::Add(Pointer info) {
  const std::int32_t pid = info->GetPid();
  if (Contains(pid)) Delete(pid);
  const auto parent = processes_.find(info->GetParent());
  if (parent != processes_.end()) {
    parent->second->AddChild(pid);
    ZLOG_TRACE("ProcessTree: Adding " << pid << " (" << (info->GetImage() ? info->GetImage()->GetPath() : "")
                                      << ") as child of " << info->GetParent());
  } else {
    ZLOG_DEBUG("Failed to find parent process in tree for pid " << pid << ", updating parent as -1");
    info->SetParent(ProcessInfo::kNoParent);
  }
  AdoptChildren(*info);
  processes_[pid] = std::move(info);
  ZLOG_TRACE("ProcessTree: Size " << processes_.size() << " (" << [this] {
    std::ostringstream keys;
    for (const auto& entry : processes_) keys << entry.first << " ";
    return keys.str();
  }() << ")");
}

template <typename Info, typename Pointer>
void GenericProcessTree<Info, Pointer>::AdoptChildren(Info& info) {
  const std::unordered_set<std::int32_t> named = info.GetChildren();
  for (const std::int32_t pid : named) {
    const auto child = processes_.find(pid);
    // Its own parent cannot be its child: pids that came again have made one of the two.
    if (child == processes_.end() || pid == info.GetParent()) {
      info.RemoveChild(pid);
      continue;
    }
    const auto parent = processes_.find(child->second->GetParent());
    if (parent != processes_.end()) parent->second->RemoveChild(pid);
    child->second->SetParent(info.GetPid());
  }
}

template <typename Info, typename Pointer>
void GenericProcessTree<Info, Pointer>::Delete(std::int32_t pid) {
  if (pid < 1) throw std::invalid_argument("ProcessTree::Delete: 'pid' is invalid");
  ZLOG_TRACE("ProcessTree: Deleting " << pid);
  const auto entry = processes_.find(pid);
  if (entry == processes_.end()) return;
  const auto parent = processes_.find(entry->second->GetParent());
  if (parent != processes_.end()) parent->second->RemoveChild(pid);
  const auto init = processes_.find(1);
  for (const std::int32_t child : entry->second->GetChildren()) {
    const auto orphan = processes_.find(child);
    if (orphan == processes_.end() || child == 1) continue;
    orphan->second->SetParent(1);
    if (init != processes_.end() && pid != 1) init->second->AddChild(child);
  }
  processes_.erase(entry);
}

template <typename Info, typename Pointer>
std::vector<const Info*> GenericProcessTree<Info, Pointer>::GetAncestors(std::int32_t pid) const {
  if (pid < 1) throw std::invalid_argument("ProcessTree::GetAncestors: 'pid' is invalid");
  std::vector<const Info*> ancestors;
  std::unordered_set<std::int32_t> visited;
  for (auto found = processes_.find(pid); found != processes_.end() && visited.insert(found->first).second;
       found = processes_.find(found->second->GetParent())) {
    ancestors.push_back(found->second.get());
  }
  return ancestors;
}

template <typename Info, typename Pointer>
template <typename Condition>
bool GenericProcessTree<Info, Pointer>::AnyAncestor(std::int32_t pid, Condition condition) const {
  // Who walks in a loop comes to a mark again, once it is set within the loop and the loop is not longer than the way
  // to the next one.
  const Info* mark = nullptr;
  std::size_t next_mark = 1;
  std::size_t steps = 0;
  for (auto found = processes_.find(pid); found != processes_.end();
       found = processes_.find(found->second->GetParent())) {
    const Info* const info = found->second.get();
    if (info == mark) return false;
    if (condition(*info)) return true;
    if (++steps < next_mark) continue;
    mark = info;
    next_mark *= 2;
  }
  return false;
}

}  // namespace zagent::common
