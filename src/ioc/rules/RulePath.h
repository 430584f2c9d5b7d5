#pragma once

#include <string>
#include <string_view>

#include "src/edr/process/ImageInfo.h"

namespace zagent::ioc::internal {

// The path of a file object without "..", "." and doubled slashes, which events have hardly ever: it is copied only
// then. Valid as long as the object.
class NormalPath {
 public:
  // Empty for null.
  explicit NormalPath(const common::ImageInfo* file);
  NormalPath(const NormalPath&) = delete;
  NormalPath& operator=(const NormalPath&) = delete;
  ~NormalPath() = default;

  [[nodiscard]] std::string_view Get() const { return path_; }

 private:
  std::string changed_;
  std::string_view path_;
};

// Of normal absolute paths. The number of folders that the path names; its last part counts as a file: "/etc" is 0,
// "/etc/passwd" is 1.
[[nodiscard]] int DepthOf(std::string_view path);
// The folder in which the path lies; that of "/" and of a bare name is the path itself.
[[nodiscard]] std::string_view FolderOf(std::string_view path);
// Whether the path is the folder or lies in it.
[[nodiscard]] bool IsWithin(std::string_view path, std::string_view folder);

// Why nothing can ever have this path, behind "its path is "; null for a path that something may have.
[[nodiscard]] const char* WhyNobodysPath(std::string_view path);

}  // namespace zagent::ioc::internal
