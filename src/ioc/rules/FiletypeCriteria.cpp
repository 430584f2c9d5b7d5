#include "src/ioc/rules/FiletypeCriteria.h"

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal {

using edr::FilterCriteriaException;

FiletypeCriteria::FiletypeCriteria(const rapidjson::Value& json) : FilterCriteria(Group::Inclusion, ParseTypes(json)) {}

std::vector<edr::PathGlob> FiletypeCriteria::ParseTypes(const rapidjson::Value& json) {
  constexpr const char* kInvalid = "Invalid value for FileType patterns";
  ZLOG_DEBUG("Setting FileType Filters");
  if (!json.IsArray()) throw FilterCriteriaException(kInvalid);
  std::vector<edr::PathGlob> types;
  for (rapidjson::SizeType i = 0; i < json.Size(); ++i) {
    const common::util::JsonPlace place = {std::to_string(i)};
    if (!json[i].IsString()) throw FilterCriteriaException(kInvalid, place);
    const std::string type = common::util::ToString(json[i]);
    if (type.empty()) throw FilterCriteriaException("FileType Pattern cannot be empty", place);
    types.emplace_back("*" + type + "*", edr::PathGlob::Case::Ignored);
  }
  return types;
}

bool FiletypeCriteria::Match(const edr::Event& event) const {
  ZLOG_DEBUG("Matching FileType Filters");
  if (event.GetObjectType() != edr::ObjectType::File) {
    throw FilterCriteriaException("Cannot match FileType criteria: Not a file event");
  }
  const std::string& type = event.GetFileTypeDesc();
  if (type.empty()) throw FilterCriteriaException("Cannot match FileType criteria: Missing file type information");
  return MatchesAny(type);
}

}  // namespace zagent::ioc::internal
