#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>

namespace zagent::edr {

// Path index: finds the values (rule ids) that stand at a path or at any of its ancestors, at a cost that depends on
// the depth of the path only. Not thread-safe.
class Trie {
 public:
  // value -> the tags under which it stands
  using Values = std::map<std::string, std::set<std::string>>;

  Trie();
  Trie(const Trie&) = delete;
  Trie& operator=(const Trie&) = delete;
  ~Trie();

  // Throws std::runtime_error "Trie::Insert: value is empty" or "Trie::Insert: path is empty or invalid" (not
  // absolute). Empty path components are passed over.
  void Insert(const std::string& value, const std::string& tag, std::string_view path);

  // Values of the path's node and of all its ancestors. Throws std::runtime_error "Trie::GetValues: path is empty or
  // invalid".
  [[nodiscard]] Values GetValues(std::string_view path) const;

  // The path as far as the trie has nodes for it, "/" at the least: those who share that part have the same values.
  // Empty for a path that is not absolute.
  [[nodiscard]] std::string_view KnownPartOf(std::string_view path) const;

  // Whether a value stands at this path or below it. False for a path that is not absolute.
  [[nodiscard]] bool HasValuesAtOrBelow(std::string_view path) const;

  // Takes one tag off a value; value and nodes that have become empty go too. What is not there is logged only.
  void Delete(const std::string& value, const std::string& tag, std::string_view path);

 private:
  struct Node;
  std::unique_ptr<Node> root_;
};

}  // namespace zagent::edr
