#include "src/ioc/engines/Tag.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"

namespace zagent::ioc::internal {

using common::util::FindMember;
using common::util::ToString;

const std::string& PathOf(const common::ImageInfo* object) {
  static const std::string kNone;
  return object != nullptr ? object->GetPath() : kNone;
}

Tag::Tag(std::string name, const TtlProcessTree& tree, const rapidjson::Value& settings)
    : name_(std::move(name)),
      tree_(tree),
      score_(ParseScore(name_, settings)),
      exclusions_(ParseExclusions(settings)) {}

std::int64_t Tag::ParseScore(const std::string& name, const rapidjson::Value& settings) {
  if (!settings.IsObject()) throw std::runtime_error("Invalid settings json for " + name + " tag");
  const rapidjson::Value* score = FindMember(settings, "score");
  if (score == nullptr || !score->IsInt64()) {
    throw std::runtime_error("Score is absent or invalid for " + name + " tag");
  }
  return score->GetInt64();
}

std::vector<Tag::Exclusion> Tag::ParseExclusions(const rapidjson::Value& settings) const {
  const rapidjson::Value* array = FindMember(settings, "exclusions");
  if (array == nullptr) return {};
  if (!array->IsArray()) throw std::runtime_error(name_ + " tag has invalid exclusions definition");
  std::vector<Exclusion> exclusions;
  for (rapidjson::SizeType i = 0; i < array->Size(); ++i) {
    exclusions.push_back(
        ParseExclusion((*array)[i], "Invalid exclusion at index " + std::to_string(i) + " for " + name_ + " tag"));
  }
  return exclusions;
}

Tag::Exclusion Tag::ParseExclusion(const rapidjson::Value& json, const std::string& error) {
  const rapidjson::Value* program = FindMember(json, "actorProcess");
  const rapidjson::Value* values = FindMember(json, "patterns");
  if (program == nullptr || !program->IsString() || (values != nullptr && !values->IsString())) {
    throw std::runtime_error(error);
  }
  try {
    Exclusion exclusion{WholeTextPattern(ToString(*program)), std::nullopt};
    if (values != nullptr && values->GetStringLength() != 0) exclusion.values = WholeTextPattern(ToString(*values));
    return exclusion;
  } catch (const Poco::Exception&) {
    throw std::runtime_error(error);
  }
}

bool Tag::IsExcluded(const std::string& image_path, const std::string& value) const {
  return std::any_of(exclusions_.begin(), exclusions_.end(), [&](const Exclusion& exclusion) {
    if (!exclusion.program.Matches(image_path)) return false;
    return !exclusion.values || value.empty() || exclusion.values->Matches(value);
  });
}

bool Tag::IsFileExcluded(const edr::Event& event) const {
  const std::string& image = PathOf(event.GetImage());
  return AnyPathOf(event, [&](const std::string& path) { return IsExcluded(image, path); });
}

bool Tag::HasTag(const edr::Event& event) const {
  return tree_.Get(event.GetActorProcessId())->HasTag(name_);
}

void Tag::CheckIsObject(const rapidjson::Value& settings) {
  if (!settings.IsObject()) throw std::invalid_argument("Settings is not a valid json object");
}

WholeTextPattern Tag::ParsePattern(const rapidjson::Value& settings, const char* key, const char* fallback) {
  const rapidjson::Value* text = FindMember(settings, key);
  if (text != nullptr && text->IsString() && text->GetStringLength() != 0) {
    try {
      return WholeTextPattern(ToString(*text));
    } catch (const Poco::Exception& error) {
      ZLOG_DEBUG(key << ": " << error.displayText());
    }
  }
  ZLOG_WARNING(key << " is empty or invalid. Using default regex.");
  return WholeTextPattern(fallback);
}

}  // namespace zagent::ioc::internal
