#include "src/fim/LexicalPath.h"

#include <algorithm>

namespace zagent::fim::internal {
namespace {

// Events have tidy paths nearly always.
bool IsTidy(std::string_view path) {
  return path.find("//") == std::string_view::npos && path.find("/.") == std::string_view::npos &&
         !path.starts_with('.') && (path.size() == 1 || !path.ends_with('/'));
}

}  // namespace

std::string LexicallyNormal(std::string_view path) {
  if (path.empty() || IsTidy(path)) return std::string(path);
  const bool is_absolute = path.front() == '/';
  std::string normal;
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('/'), path.size());
    const std::string_view name = path.substr(0, end);
    path.remove_prefix(std::min(end + 1, path.size()));
    if (name.empty() || name == ".") continue;
    if (name == "..") {
      const std::size_t slash = normal.rfind('/');
      normal.resize(slash == std::string::npos ? 0 : slash);
      continue;
    }
    if (is_absolute || !normal.empty()) normal += '/';
    normal += name;
  }
  return normal.empty() && is_absolute ? "/" : normal;
}

}  // namespace zagent::fim::internal
