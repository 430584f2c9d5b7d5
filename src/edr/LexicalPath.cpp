#include "src/edr/LexicalPath.h"

#include <algorithm>

namespace zagent::edr {
namespace {

// Events have tidy paths nearly always.
bool IsTidy(std::string_view path) {
  if (path.starts_with('.') || (path.size() != 1 && path.ends_with('/'))) return false;
  for (std::size_t slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/', slash + 1)) {
    if (slash + 1 < path.size() && (path[slash + 1] == '/' || path[slash + 1] == '.')) return false;
  }
  return true;
}

enum class Dots { Kept, Followed };  // ".."

std::string Joined(std::string_view path, Dots dots) {
  const bool is_absolute = path.starts_with('/');
  std::string joined;
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('/'), path.size());
    const std::string_view name = path.substr(0, end);
    path.remove_prefix(std::min(end + 1, path.size()));
    if (name.empty() || name == ".") continue;
    if (name == ".." && dots == Dots::Followed) {
      const std::size_t slash = joined.rfind('/');
      joined.resize(slash == std::string::npos ? 0 : slash);
      continue;
    }
    if (is_absolute || !joined.empty()) joined += '/';
    joined += name;
  }
  return joined.empty() && is_absolute ? "/" : joined;
}

}  // namespace

std::string Tidy(std::string_view path) {
  return path.empty() || IsTidy(path) ? std::string(path) : Joined(path, Dots::Kept);
}

std::string LexicallyNormal(std::string_view path) {
  return path.empty() || IsTidy(path) ? std::string(path) : Joined(path, Dots::Followed);
}

bool IsLexicallyNormal(std::string_view path) {
  return path.empty() || IsTidy(path);
}

}  // namespace zagent::edr
