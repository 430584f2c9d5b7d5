#include "src/edr/Trie.h"

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <utility>
#include <vector>

#include "common/src/util/Log.h"
#include "src/edr/TextHash.h"

namespace zagent::edr {
namespace {

void RequireAbsolute(std::string_view path, const char* error) {
  if (path.empty() || path.front() != '/') throw std::runtime_error(error);
}

// The next component of `path`, which is cut off it; empty at the path's end.
std::string_view TakeComponent(std::string_view& path) {
  std::size_t begin = 0;
  while (begin < path.size() && path[begin] == '/') ++begin;
  const std::size_t end = std::min(path.find('/', begin), path.size());
  const std::string_view component = path.substr(begin, end - begin);
  path.remove_prefix(end);
  return component;
}

}  // namespace

struct Trie::Node {
  std::unordered_map<std::string, std::unique_ptr<Node>, TextHash, std::equal_to<>> children;
  std::unordered_map<std::string, std::set<std::string>> values;

  [[nodiscard]] bool IsEmpty() const { return children.empty() && values.empty(); }

  [[nodiscard]] Node* Child(std::string_view component) const {
    const auto found = children.find(component);
    return found == children.end() ? nullptr : found->second.get();
  }

  // False, with a log line, when the tag is not there.
  bool RemoveTag(const std::string& value, const std::string& tag, std::string_view path) {
    const auto found = values.find(value);
    if (found == values.end()) {
      ZLOG_WARNING("Trie::Delete: Failed to find the value '" << value << "' in path: " << path);
      return false;
    }
    if (found->second.erase(tag) == 0) {
      ZLOG_WARNING("Trie::Delete: Failed to find value '" << value << "' with tag: " << tag);
      return false;
    }
    ZLOG_DEBUG("Trie::Delete: Deleted tag '" << tag << "'");
    if (found->second.empty()) values.erase(found);
    return true;
  }

  void CopyValues(Values& values_so_far) const {
    for (const auto& [value, tags] : values) values_so_far[value].insert(tags.begin(), tags.end());
  }
};

Trie::Trie() : root_(std::make_unique<Node>()) {}

Trie::~Trie() {
  // Node by node: a path may be deeper than the stack.
  std::vector<std::unique_ptr<Node>> pending;
  pending.push_back(std::move(root_));
  while (!pending.empty()) {
    const std::unique_ptr<Node> node = std::move(pending.back());
    pending.pop_back();
    for (auto& [component, child] : node->children) pending.push_back(std::move(child));
  }
}

void Trie::Insert(const std::string& value, const std::string& tag, std::string_view path) {
  if (value.empty()) throw std::runtime_error("Trie::Insert: value is empty");
  RequireAbsolute(path, "Trie::Insert: path is empty or invalid");
  Node* node = root_.get();
  for (std::string_view name = TakeComponent(path); !name.empty(); name = TakeComponent(path)) {
    std::unique_ptr<Node>& child = node->children[std::string(name)];
    if (!child) child = std::make_unique<Node>();
    node = child.get();
  }
  node->values[value].insert(tag);
}

Trie::Values Trie::GetValues(std::string_view path) const {
  RequireAbsolute(path, "Trie::GetValues: path is empty or invalid");
  Values values;
  root_->CopyValues(values);
  const Node* node = root_.get();
  for (std::string_view name = TakeComponent(path); !name.empty(); name = TakeComponent(path)) {
    node = node->Child(name);
    if (node == nullptr) break;
    node->CopyValues(values);
  }
  return values;
}

std::string_view Trie::KnownPartOf(std::string_view path) const {
  if (!path.starts_with('/')) return {};
  std::size_t known = 1;
  std::string_view rest = path;
  const Node* node = root_.get();
  for (std::string_view name = TakeComponent(rest); !name.empty(); name = TakeComponent(rest)) {
    node = node->Child(name);
    if (node == nullptr) break;
    known = path.size() - rest.size();
  }
  return path.substr(0, known);
}

bool Trie::HasValuesAtOrBelow(std::string_view path) const {
  if (!path.starts_with('/')) return false;
  const Node* node = root_.get();
  for (std::string_view name = TakeComponent(path); node != nullptr && !name.empty(); name = TakeComponent(path)) {
    node = node->Child(name);
  }
  // Only the root may stand without any.
  return node != nullptr && !node->IsEmpty();
}

void Trie::Delete(const std::string& value, const std::string& tag, std::string_view path) {
  struct Step {
    Node* node;
    std::string name;  // of this node in its parent
  };
  std::vector<Step> way{{root_.get(), ""}};
  std::string node_path;
  std::string_view rest = path;
  for (std::string_view name = TakeComponent(rest); !name.empty(); name = TakeComponent(rest)) {
    Node* const child = way.back().node->Child(name);
    if (child == nullptr) {
      ZLOG_WARNING("Trie::Delete: Failed to find the value '" << value << "' in path: " << path);
      return;
    }
    way.push_back({child, std::string(name)});
    node_path.append("/").append(name);
  }

  if (!way.back().node->RemoveTag(value, tag, path)) return;
  for (; way.size() > 1 && way.back().node->IsEmpty(); way.pop_back()) {
    const std::string& name = way.back().name;
    way[way.size() - 2].node->children.erase(name);
    ZLOG_DEBUG("Trie::Delete: Deleted node at " << node_path);
    node_path.resize(node_path.size() - name.size() - 1);
  }
}

}  // namespace zagent::edr
