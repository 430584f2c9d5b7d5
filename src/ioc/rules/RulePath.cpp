#include "src/ioc/rules/RulePath.h"

#include <algorithm>
#include <climits>

#include "src/edr/LexicalPath.h"

namespace zagent::ioc::internal {

NormalPath::NormalPath(const common::ImageInfo* file) {
  if (file == nullptr) return;
  path_ = file->GetPath();
  if (edr::IsLexicallyNormal(path_)) return;
  changed_ = edr::LexicallyNormal(path_);
  path_ = changed_;
}

int DepthOf(std::string_view path) {
  return static_cast<int>(std::count(path.begin(), path.end(), '/')) - 1;
}

std::string_view FolderOf(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return path;
  return path.substr(0, std::max<std::size_t>(slash, 1));
}

bool IsWithin(std::string_view path, std::string_view folder) {
  if (folder == "/") return path.starts_with('/');
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

const char* WhyNobodysPath(std::string_view path) {
  if (!path.starts_with('/')) return "not absolute";
  return path.size() < PATH_MAX ? nullptr : "too long";
}

}  // namespace zagent::ioc::internal
