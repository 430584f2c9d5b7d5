#include "src/fim/Filter.h"

#include <Poco/Path.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <string_view>

#include "common/src/util/Log.h"
#include "src/edr/process/ImageInfo.h"
#include "src/fim/LogPrefix.h"

namespace zagent::fim::internal {
namespace {

using common::util::FindMember;

constexpr std::array<const char*, 6> kKeys = {"objectType",    "patterns",      "actorProcess",
                                              "actorUsername", "timespanStart", "timespanEnd"};

bool HasKnownKey(const rapidjson::Value& json) {
  return std::any_of(kKeys.begin(), kKeys.end(), [&](const char* key) { return FindMember(json, key) != nullptr; });
}

std::vector<std::string> ParseTexts(const rapidjson::Value& array, const char* key, const char* no_array,
                                    const char* no_string) {
  if (!array.IsArray()) throw FilterException(no_array, {key});
  std::vector<std::string> texts;
  for (rapidjson::SizeType i = 0; i < array.Size(); ++i) {
    if (!array[i].IsString()) throw FilterException(no_string, {key, std::to_string(i)});
    texts.push_back(common::util::ToString(array[i]));
  }
  return texts;
}

// A bare name matches in any folder.
std::string InAnyFolder(const std::string& pattern) {
  if (!pattern.empty() && (pattern.front() == '/' || pattern.front() == '*')) return pattern;
  return "*/" + pattern;
}

std::string WithoutTrailingSlashes(const std::string& path) {
  return path.substr(0, path.find_last_not_of('/') + 1);
}

bool MatchAndTrace(const edr::PathGlob& glob, const std::string& value) {
  const bool matched = glob.Matches(value);
  ZLOG_TRACE("Pattern: " << glob.GetPattern() << (matched ? " matched with value: " : " not matched with value: ")
                         << value);
  return matched;
}

bool MatchesAny(const std::vector<edr::PathGlob>& globs, const std::string& value) {
  return std::any_of(globs.begin(), globs.end(), [&](const edr::PathGlob& glob) { return MatchAndTrace(glob, value); });
}

int SecondOfDay(const std::tm& time) {
  return time.tm_hour * 3600 + time.tm_min * 60 + time.tm_sec;
}

std::optional<int> ParseSecondOfDay(const std::string& text) {
  std::tm time{};
  const char* end = strptime(text.c_str(), "%H:%M:%S", &time);
  if (end != nullptr && end == text.c_str() + text.size()) return SecondOfDay(time);
  ZLOG_DEBUG("Failed to convert time string to time tm struct");
  return std::nullopt;
}

constexpr const char* kInvalidTimespan = "Invalid timespan filter";

// One end of the time span.
int ParseTimespanEnd(const rapidjson::Value* json, const char* key, const char* complaint) {
  const std::string text = json != nullptr && json->IsString() ? common::util::ToString(*json) : "";
  if (const std::optional<int> second = ParseSecondOfDay(text)) return *second;
  throw FilterException(std::string(kInvalidTimespan) + ": " + complaint + text,
                        json != nullptr ? JsonPlace{key} : JsonPlace{});
}

}  // namespace

Filter::Filter(const rapidjson::Value& json, const std::string& rule_path) {
  if (!json.IsObject() || !HasKnownKey(json)) throw FilterException("Missing or invalid filters.");
  ParseObject(json);
  if (const auto* processes = FindMember(json, "actorProcess")) {
    for (const std::string& pattern :
         ParseTexts(*processes, "actorProcess", "Expected array of processes filter", "Invalid actor-process json")) {
      process_globs_.emplace_back(InAnyFolder(pattern));
    }
  }
  if (const auto* users = FindMember(json, "actorUsername")) {
    constexpr const char* kError = "Expected array of users filter";
    for (const std::string& pattern : ParseTexts(*users, "actorUsername", kError, kError))
      user_globs_.emplace_back(pattern);
  }
  ParseTimespan(json);
  CompilePatterns(rule_path);
}

void Filter::ParseObject(const rapidjson::Value& json) {
  const rapidjson::Value* type = FindMember(json, "objectType");
  const rapidjson::Value* patterns = FindMember(json, "patterns");
  if (type == nullptr && patterns == nullptr) return;
  if (type == nullptr) throw FilterException("Invalid object-type json");
  if (!type->IsString()) throw FilterException("Invalid object-type json", {"objectType"});
  const std::string word = common::util::ToString(*type);
  if (word == "file") {
    object_type_ = edr::ObjectType::File;
  } else if (word == "directory") {
    object_type_ = edr::ObjectType::Directory;
  } else {
    throw FilterException("Unknown object type", {"objectType"});
  }
  if (patterns == nullptr) throw FilterException("Missing or invalid patterns");
  for (const std::string& pattern :
       ParseTexts(*patterns, "patterns", "Expected array of patterns", "Invalid value for patterns")) {
    patterns_.push_back(InAnyFolder(pattern));
  }
}

void Filter::ParseTimespan(const rapidjson::Value& json) {
  const rapidjson::Value* start = FindMember(json, "timespanStart");
  const rapidjson::Value* end = FindMember(json, "timespanEnd");
  if (start == nullptr && end == nullptr) return;
  start_second_ = ParseTimespanEnd(start, "timespanStart", "Invalid startTime ");
  end_second_ = ParseTimespanEnd(end, "timespanEnd", "Invalid endTime ");
  if (start_second_ > end_second_) {
    throw FilterException(std::string(kInvalidTimespan) + ": StartTime cannot be later than EndTime",
                          {"timespanStart"});
  }
}

void Filter::CompilePatterns(const std::string& rule_path) {
  // The path is no pattern: a folder "[x]" means itself. Without its last slash, so that "/etc/" and "/etc" are one.
  const std::string base = edr::PathGlob::Escape(WithoutTrailingSlashes(rule_path));
  path_globs_.clear();
  for (const std::string& pattern : patterns_) path_globs_.emplace_back(base + pattern);
}

Filter Filter::ForPath(const std::string& rule_path) const {
  Filter filter(*this);
  filter.CompilePatterns(rule_path);
  return filter;
}

bool Filter::Excludes(const edr::Event& event) const {
  return Matches(event, Ends::Both) && (process_globs_.empty() || !event.IsImageDisguised());
}

bool Filter::NamesProgramOf(const edr::Event& event) const {
  return !process_globs_.empty() && MatchesProcess(event);
}

bool Filter::Matches(const edr::Event& event, Ends ends) const {
  return MatchesObject(event, ends) && MatchesUser(event) && MatchesTime(event) && MatchesProcess(event);
}

bool Filter::MatchesObject(const edr::Event& event, Ends ends) const {
  if (!object_type_) return true;
  if (*object_type_ == edr::ObjectType::File && event.GetObjectType() != edr::ObjectType::File) return false;
  if (path_globs_.empty()) return true;
  const common::ImageInfo* file = event.GetFile();
  if (file == nullptr) return false;
  const bool matches = MatchesPath(file->GetPath());
  if (event.GetType() != edr::EventType::Rename || matches == (ends == Ends::Either)) return matches;
  const common::ImageInfo* new_file = event.GetNewFile();
  return new_file != nullptr ? MatchesPath(new_file->GetPath()) : matches;
}

bool Filter::MatchesPath(const std::string& path) const {
  if (*object_type_ == edr::ObjectType::File) return MatchesAny(path_globs_, path);
  const std::string parent = Poco::Path(path, Poco::Path::PATH_UNIX).parent().toString(Poco::Path::PATH_UNIX);
  return std::any_of(path_globs_.begin(), path_globs_.end(), [&](const edr::PathGlob& glob) {
    return MatchAndTrace(glob, path) || MatchAndTrace(glob, path + "/*") || MatchAndTrace(glob, parent);
  });
}

bool Filter::MatchesUser(const edr::Event& event) const {
  return user_globs_.empty() || MatchesAny(user_globs_, event.GetActorLoginName());
}

bool Filter::MatchesTime(const edr::Event& event) const {
  if (start_second_ == end_second_) return true;
  const std::time_t seconds = static_cast<std::time_t>(event.GetTimestamp() / 1'000'000'000);
  std::tm time{};
  if (gmtime_r(&seconds, &time) == nullptr) return false;
  const int second = SecondOfDay(time);
  return start_second_ <= second && second <= end_second_;
}

bool Filter::MatchesProcess(const edr::Event& event) const {
  if (process_globs_.empty()) return true;
  const common::ImageInfo* image = event.GetImage();
  return image != nullptr && MatchesAny(process_globs_, image->GetPath());
}

}  // namespace zagent::fim::internal
