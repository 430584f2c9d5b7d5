#include "src/fim/EventRule.h"

#include <Poco/Path.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>
#include <utility>

#include "common/src/util/Log.h"
#include "src/edr/LexicalPath.h"
#include "src/edr/process/ImageInfo.h"
#include "src/fim/LogPrefix.h"

namespace zagent::fim::internal {
namespace {

using common::util::FindMember;
using edr::EventRuleException;
using edr::EventType;

constexpr const char* kInvalidValues = "Invalid Rule json values";

struct NotifyWord {
  std::string_view word;
  EventType type;
};

constexpr std::array<NotifyWord, 7> kNotifyWords = {{
    {"read", EventType::Read},
    {"create", EventType::Create},
    {"delete", EventType::Delete},
    {"rename", EventType::Rename},
    {"modifyContent", EventType::Write},
    {"modifyMetadata", EventType::AttributeChange},
    {"modifySecuritySettings", EventType::AttributeChange},
}};

// What makes tracking of content worth while.
constexpr std::array<EventType, 4> kContentActions = {EventType::Write, EventType::Delete, EventType::Rename,
                                                      EventType::Create};

std::string MandatoryText(const rapidjson::Value& json, const char* key) {
  const rapidjson::Value* member = FindMember(json, key);
  if (member == nullptr) throw RuleFault(std::string("Missing mandatory element: ") + key);
  if (!member->IsString()) throw RuleFault(kInvalidValues, {key});
  std::string text = common::util::ToString(*member);
  // Paths and keys end at a NUL once the kernel sees them: nothing may stand behind it.
  if (text.find('\0') != std::string::npos) throw RuleFault(kInvalidValues, {key});
  return text;
}

edr::ObjectType ParseType(const std::string& word) {
  if (word == "file") return edr::ObjectType::File;
  if (word == "directory") return edr::ObjectType::Directory;
  throw RuleFault("Rule type is invalid", {"ruleType"});
}

EventType ParseNotifyWord(const rapidjson::Value& json, rapidjson::SizeType position) {
  if (json.IsString()) {
    const std::string text = common::util::ToString(json);
    for (const NotifyWord& entry : kNotifyWords) {
      if (entry.word == text) return entry.type;
    }
  }
  throw RuleFault("Invalid Notify Flag", {"notify", std::to_string(position)});
}

int ParseDepth(const rapidjson::Value& json) {
  if (!json.IsString()) throw RuleFault("Recursive Depth: string is expected", {"recursiveDepth"});
  std::string text = common::util::ToString(json);
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (text == "all") return EventRule::kMaxDepth;
  if (text == "none") return 0;
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
    throw RuleFault("Recursive Depth: a decimal number is expected", {"recursiveDepth"});
  }
  int depth = 0;
  for (const char digit : text) depth = std::min(depth * 10 + (digit - '0'), EventRule::kMaxDepth);
  return depth;
}

// An element of a filter section is the filter itself or an object that wraps it: {"inclusionFilter": {...}}.
std::vector<Filter> ParseFilters(const rapidjson::Value& section, const char* wrapper, const std::string& path) {
  if (!section.IsArray()) throw FilterException("Filters not array");
  std::vector<Filter> filters;
  for (rapidjson::SizeType i = 0; i < section.Size(); ++i) {
    const rapidjson::Value* wrapped = FindMember(section[i], wrapper);
    JsonPlace place = {std::to_string(i)};
    if (wrapped != nullptr) place.emplace_back(wrapper);
    try {
      filters.emplace_back(wrapped != nullptr ? *wrapped : section[i], path);
    } catch (const FilterException& error) {
      throw FilterException(error.what(), Within(std::move(place), error.Place()));
    }
  }
  return filters;
}

std::vector<Filter> ParseFilterSection(const rapidjson::Value& rule, const char* section, const char* wrapper,
                                       const std::string& path, const char* failure) {
  const rapidjson::Value* json = FindMember(rule, section);
  if (json == nullptr) return {};
  try {
    return ParseFilters(*json, wrapper, path);
  } catch (const FilterException& error) {
    throw RuleFault(std::string(failure) + ": " + error.what(), Within({section}, error.Place()));
  }
}

// Folder components of the path; the last component counts as a file: "/etc" is 0, "/etc/passwd" is 1.
int DepthOf(const std::string& lexically_normal_path) {
  return Poco::Path(lexically_normal_path, Poco::Path::PATH_UNIX).depth();
}

const std::string& PathOf(const common::ImageInfo* image) {
  static const std::string kNone;
  return image != nullptr ? image->GetPath() : kNone;
}

}  // namespace

EventRule::EventRule(const rapidjson::Value& json) {
  if (!json.IsObject()) throw RuleFault(kInvalidValues);
  id_ = MandatoryText(json, "ruleId");
  if (id_.empty()) throw RuleFault(kInvalidValues, {"ruleId"});
  report_id_ = id_;
  ZLOG_DEBUG("Parsing Rule with id: " << id_);
  type_ = ParseType(MandatoryText(json, "ruleType"));
  SetPath(MandatoryText(json, "imagePath"));

  const rapidjson::Value* depth = FindMember(json, "recursiveDepth");
  if (depth != nullptr) {
    recursive_depth_ = ParseDepth(*depth);
  } else if (type_ == edr::ObjectType::Directory) {
    throw RuleFault("Missing mandatory element: recursiveDepth");
  }
  ZLOG_DEBUG("Recursive depth is set to: " << recursive_depth_);

  ParseNotify(json);
  ZLOG_DEBUG("Reading Inclusion Filters");
  inclusion_filters_ = ParseFilterSection(json, "inclusionFilters", "inclusionFilter", normal_path_,
                                          "Failed to parse inclusion filters");
  ZLOG_DEBUG("Reading Exclusion Filters");
  exclusion_filters_ = ParseFilterSection(json, "exclusionFilters", "exclusionFilter", normal_path_,
                                          "Failed to parse exclusion filters");
  ParseTrackContentChange(json);
  ZLOG_DEBUG("Parsed rule with id: " << id_);
}

EventRule::EventRule(const EventRule& other, std::string id, const std::string& path)
    : id_(std::move(id)),
      report_id_(other.report_id_),
      type_(other.type_),
      recursive_depth_(other.recursive_depth_),
      file_actions_(other.file_actions_),
      directory_actions_(other.directory_actions_),
      track_content_change_(other.track_content_change_) {
  SetPath(path);
  for (const Filter& filter : other.inclusion_filters_) inclusion_filters_.push_back(filter.ForPath(normal_path_));
  for (const Filter& filter : other.exclusion_filters_) exclusion_filters_.push_back(filter.ForPath(normal_path_));
}

void EventRule::SetPath(const std::string& path) {
  if (path.empty()) throw RuleFault("Cannot create rule: Path is empty.", {"imagePath"});
  // One relative path would make the rule engine refuse the whole batch.
  if (path.front() != '/') throw RuleFault("Cannot create rule: Path is not absolute.", {"imagePath"});
  path_ = edr::Tidy(path);
  normal_path_ = edr::LexicallyNormal(path_);
  path_depth_ = DepthOf(normal_path_);
}

void EventRule::ParseNotify(const rapidjson::Value& json) {
  const rapidjson::Value* notify = FindMember(json, "notify");
  if (notify == nullptr) throw RuleFault("Missing mandatory element: notify");
  if (!notify->IsArray()) throw RuleFault(kInvalidValues, {"notify"});
  for (rapidjson::SizeType i = 0; i < notify->Size(); ++i) file_actions_.insert(ParseNotifyWord((*notify)[i], i));
  if (file_actions_.empty()) throw RuleFault("No Actions in Notify List", {"notify"});
  if (type_ == edr::ObjectType::Directory) directory_actions_ = file_actions_;
}

void EventRule::ParseTrackContentChange(const rapidjson::Value& json) {
  const rapidjson::Value* track = FindMember(json, "trackContentChange");
  if (track == nullptr) return;
  if (!track->IsBool()) throw RuleFault(kInvalidValues, {"trackContentChange"});
  track_content_change_ = track->GetBool();
  const bool worth_while = std::any_of(kContentActions.begin(), kContentActions.end(),
                                       [&](EventType type) { return file_actions_.count(type) != 0; });
  if (track_content_change_ && !worth_while) {
    track_content_change_ = false;
    ZLOG_WARNING(
        "Required actions like modifyContent, delete, rename, create are not enabled"
        " so trackcontentchange cannot be enable for this rule: "
        << id_);
  }
}

const edr::EventTypes& EventRule::GetDirectoryActions() const {
  if (type_ != edr::ObjectType::Directory) {
    throw EventRuleException("Fetching Directory actions for non-directory rule");
  }
  return directory_actions_;
}

const edr::EventTypes& EventRule::GetProcessActions() const {
  throw EventRuleException("Fetching Process actions for non-process rule");
}

const edr::EventTypes& EventRule::GetNetworkActions() const {
  throw EventRuleException("Function not defined for file rule");
}

edr::MatchResult EventRule::Match(const edr::Event& event) const {
  const bool is_in_scope = LiesElsewhere(event) ? WantsAction(event) : PostProcess(event);
  if (!is_in_scope) return edr::MatchResult::OutOfScope;
  return MatchFilters(event) ? edr::MatchResult::Matched : edr::MatchResult::RefusedByFilter;
}

bool EventRule::TrustsProgramOf(const edr::Event& event) const {
  return inclusion_filters_.empty() && std::any_of(exclusion_filters_.begin(), exclusion_filters_.end(),
                                                   [&](const Filter& filter) { return filter.NamesProgramOf(event); });
}

bool EventRule::PostProcess(const edr::Event& event) const {
  const std::string& path = PathOf(event.GetFile());
  ZLOG_TRACE("Event Path for PostProcessing" << path);
  ZLOG_TRACE("PostProcess event for ruleId: " << id_);
  if (!WantsAction(event)) return false;
  bool in_scope = false;
  if (event.GetType() == EventType::Rename) {
    const std::string& new_path = PathOf(event.GetNewFile());
    in_scope = (IsBelowPath(path) && IsWithinDepth(path)) || (IsBelowPath(new_path) && IsWithinDepth(new_path));
  } else {
    // The rule engine's path index has seen to it that the path lies below the rule's.
    in_scope = IsWithinDepth(path);
  }
  if (!in_scope) {
    ZLOG_DEBUG("Recursive depth for rule:" << id_ << " not matching with rule for event:" << event.GetId());
  }
  return in_scope;
}

bool EventRule::WantsAction(const edr::Event& event) const {
  // A file rule has no directory actions, so it takes no event of a folder that stands in its file's place.
  const edr::EventTypes& actions =
      event.GetObjectType() == edr::ObjectType::Directory ? directory_actions_ : file_actions_;
  if (actions.count(event.GetType()) != 0) return true;
  ZLOG_DEBUG("Dropping Event " << event.GetId() << " as no actions matched in rule: " << id_);
  return false;
}

bool EventRule::LiesElsewhere(const edr::Event& event) const {
  const std::string_view own = normal_path_ == "/" ? std::string_view() : normal_path_;
  const auto is_elsewhere = [own](const common::ImageInfo* file) {
    const std::string path = edr::LexicallyNormal(PathOf(file));
    return path.starts_with('/') && !(path.starts_with(own) && (path.size() == own.size() || path[own.size()] == '/'));
  };
  const bool was_elsewhere = is_elsewhere(event.GetFile());
  return was_elsewhere && (event.GetType() != EventType::Rename || is_elsewhere(event.GetNewFile()));
}

bool EventRule::MatchFilters(const edr::Event& event) const {
  if (!inclusion_filters_.empty()) {
    ZLOG_DEBUG("matching inclusion criterias");
    return std::any_of(inclusion_filters_.begin(), inclusion_filters_.end(),
                       [&](const Filter& filter) { return filter.Includes(event); });
  }
  if (!exclusion_filters_.empty()) {
    ZLOG_DEBUG("Applying Exclusion filters");
    if (std::any_of(exclusion_filters_.begin(), exclusion_filters_.end(),
                    [&](const Filter& filter) { return filter.Excludes(event); })) {
      return false;
    }
    ZLOG_DEBUG("Exclusion filters not matched");
  }
  return true;
}

bool EventRule::IsWithinDepth(const std::string& path) const {
  const int depth = DepthOf(edr::LexicallyNormal(path));
  ZLOG_TRACE("Depth of path : " << path << " is " << depth);
  return depth - path_depth_ <= recursive_depth_;
}

bool EventRule::IsBelowPath(const std::string& path) const {
  return edr::LexicallyNormal(path).starts_with(normal_path_);
}

}  // namespace zagent::fim::internal
