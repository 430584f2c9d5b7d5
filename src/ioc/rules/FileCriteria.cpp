#include "src/ioc/rules/FileCriteria.h"

#include <utility>

#include "common/src/util/Log.h"
#include "src/edr/process/ImageInfo.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal {

FileCriteria::FileCriteria(Group group, std::vector<edr::PathGlob> patterns)
    : FilterCriteria(group, std::move(patterns)) {
  ZLOG_DEBUG("Setting File Patterns");
}

bool FileCriteria::Match(const edr::Event& event) const {
  ZLOG_DEBUG("Matching File Filters");
  const edr::ObjectType type = event.GetObjectType();
  if (type != edr::ObjectType::File && type != edr::ObjectType::Process) return false;
  if (GetPatterns().empty()) return !IsExclusion();
  return type == edr::ObjectType::Process ? MatchesProgram(event) : MatchesFile(event);
}

bool FileCriteria::MatchesProgram(const edr::Event& event) const {
  const common::ImageInfo* image = event.GetImage();
  if (image != nullptr && MatchesAny(image->GetPath())) return true;
  if (!event.HasSecondaryImage()) return false;
  const common::ImageInfo* script = event.GetSecondaryImage();
  return script != nullptr && MatchesAny(script->GetPath());
}

bool FileCriteria::MatchesFile(const edr::Event& event) const {
  const common::ImageInfo* file = event.GetFile();
  const bool matches = file != nullptr && MatchesAny(file->GetPath());
  if (event.GetType() != edr::EventType::Rename || matches != IsExclusion()) return matches;
  const common::ImageInfo* new_file = event.GetNewFile();
  return new_file != nullptr ? MatchesAny(new_file->GetPath()) : matches;
}

}  // namespace zagent::ioc::internal
