#include "src/ioc/rules/DirectoryCriteria.h"

#include <algorithm>
#include <utility>

#include "common/src/util/Log.h"
#include "src/edr/process/ImageInfo.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/rules/RulePath.h"

namespace zagent::ioc::internal {
namespace {

std::string_view WithoutTrailingSlashes(std::string_view path) {
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  return path;
}

}  // namespace

DirectoryCriteria::DirectoryCriteria(Group group, std::vector<edr::PathGlob> patterns)
    : FilterCriteria(group, std::move(patterns)) {
  ZLOG_DEBUG("Setting Directory Patterns");
  for (const edr::PathGlob& pattern : GetPatterns()) below_.emplace_back(pattern.GetPattern() + "/*");
}

bool DirectoryCriteria::Match(const edr::Event& event) const {
  ZLOG_DEBUG("Matching Directory Filters");
  const edr::ObjectType type = event.GetObjectType();
  if (type != edr::ObjectType::File && type != edr::ObjectType::Directory) return false;
  if (GetPatterns().empty()) return !IsExclusion();
  const common::ImageInfo* file = event.GetFile();
  const bool matches = file != nullptr && MatchesFolderOf(file->GetPath(), type);
  if (event.GetType() != edr::EventType::Rename || matches != IsExclusion()) return matches;
  const common::ImageInfo* new_file = event.GetNewFile();
  return new_file != nullptr ? MatchesFolderOf(new_file->GetPath(), type) : matches;
}

bool DirectoryCriteria::MatchesFolderOf(std::string_view path, edr::ObjectType type) const {
  const std::string_view own = WithoutTrailingSlashes(path);
  const std::string_view folder = type == edr::ObjectType::Directory ? own : FolderOf(own);
  return MatchesAny(folder) || std::any_of(below_.begin(), below_.end(),
                                           [&](const edr::PathGlob& pattern) { return MatchPattern(pattern, folder); });
}

}  // namespace zagent::ioc::internal
