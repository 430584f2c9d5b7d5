#include "src/ioc/rules/FileRule.h"

#include <Poco/Exception.h>
#include <Poco/NumberParser.h>
#include <Poco/String.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "common/src/util/Log.h"
#include "src/edr/LexicalPath.h"
#include "src/edr/process/ImageInfo.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/rules/FiletypeCriteria.h"
#include "src/ioc/rules/FilterParser.h"
#include "src/ioc/rules/RuleFault.h"
#include "src/ioc/rules/RuleJson.h"
#include "src/ioc/rules/RulePath.h"

namespace zagent::ioc::internal {
namespace {

using common::util::FindMember;
using common::util::Within;
using edr::EventRuleException;
using edr::EventType;
using edr::MatchResult;
using edr::ObjectType;

constexpr std::array<std::pair<std::string_view, EventType>, 6> kWords = {{
    {"create", EventType::Create},
    {"delete", EventType::Delete},
    {"rename", EventType::Rename},
    {"write", EventType::Write},
    {"attribute", EventType::AttributeChange},
    {"read", EventType::Read},
}};

edr::EventTypes ParseActions(const rapidjson::Value& notify, const char* section) {
  ZLOG_DEBUG("Reading notify actions for: " << section);
  const rapidjson::Value* words = FindMember(notify, section);
  edr::EventTypes types;
  if (words == nullptr) return types;
  if (!words->IsArray()) throw RuleFault(kInvalidRule, {"notify", section});
  for (rapidjson::SizeType i = 0; i < words->Size(); ++i) {
    if (!(*words)[i].IsString()) throw RuleFault(kInvalidRule, {"notify", section, std::to_string(i)});
    const std::string word = common::util::ToString((*words)[i]);
    const auto known =
        std::find_if(kWords.begin(), kWords.end(), [&](const auto& entry) { return entry.first == word; });
    if (known == kWords.end()) {
      ZLOG_DEBUG("Unsupported value: " << word << " provided in notify");
      continue;
    }
    types.insert(known->second);
  }
  return types;
}

std::string_view WithoutTrailingSlash(std::string_view path) {
  return path.ends_with('/') ? path.substr(0, path.size() - 1) : path;
}

}  // namespace

FileRule::FileRule(const rapidjson::Value& json, std::int64_t max_file_size, const TtlProcessTree& tree)
    : max_file_size_(max_file_size) {
  ZLOG_DEBUG("Parsing File Rule");
  id_ = ParseRuleId(json);
  const std::string word = MandatoryText(json, "ruleType");
  const rapidjson::Value* notify = FindMember(json, "notify");
  if (notify == nullptr || !notify->IsObject()) throw RuleFault(kInvalidRule, {"notify"});
  SetPath(ParseRulePath(json, id_));
  type_ = word == "File" ? ObjectType::File : ObjectType::Directory;
  ZLOG_DEBUG("Parsing rule with id: " << id_);
  ZLOG_DEBUG("Rule Type: " << word);
  ParseDepth(json);
  filters_.inclusion = ParseInclusionFilters(json, RuleKind::Path, tree);
  filters_.exclusion = ParseExclusionFilters(json, RuleKind::Path, tree);
  ParseFileTypes(json);
  ParseNotify(*notify);
  ZLOG_DEBUG("Parsed rule with id: " << id_);
}

FileRule::FileRule(const FileRule& other, std::string id, const std::string& path)
    : id_(std::move(id)),
      type_(other.type_),
      max_file_size_(other.max_file_size_),
      recursive_depth_(other.recursive_depth_),
      filters_(other.filters_),
      file_types_(other.file_types_),
      directory_actions_(other.directory_actions_),
      file_actions_(other.file_actions_) {
  SetPath(path);
}

void FileRule::SetPath(const std::string& path) {
  path_ = path;
  normal_path_ = edr::LexicallyNormal(path_);
  path_depth_ = DepthOf(normal_path_);
}

void FileRule::ParseDepth(const rapidjson::Value& json) {
  const rapidjson::Value* depth = FindMember(json, "recursiveDepth");
  if (depth == nullptr) return;
  if (!depth->IsString()) throw RuleFault("Recursive Depth: string is expected", {"recursiveDepth"});
  const std::string text = common::util::ToString(*depth);
  if (Poco::icompare(text, "None") == 0) return;
  if (Poco::icompare(text, "All") == 0) {
    recursive_depth_ = kMaxDepth;
    return;
  }
  try {
    recursive_depth_ = static_cast<std::uint8_t>(std::min(Poco::NumberParser::parseUnsigned(text), kMaxDepth));
  } catch (const Poco::Exception& error) {
    throw RuleFault(error.displayText(), {"recursiveDepth"});
  }
}

void FileRule::ParseFileTypes(const rapidjson::Value& json) {
  ZLOG_DEBUG("Reading fileTypeToInclude");
  const rapidjson::Value* types = FindMember(json, "fileTypeToInclude");
  if (types == nullptr) return;
  const std::string failure = "Failed to parse file type filters: ";
  if (!types->IsArray()) throw RuleFault(failure + "Not an array of fileTypeToInclude filters", {"fileTypeToInclude"});
  try {
    file_types_ = FilterGroup{std::make_shared<const FiletypeCriteria>(*types)};
  } catch (const edr::FilterCriteriaException& error) {
    throw RuleFault(failure + error.what(), Within({"fileTypeToInclude"}, error.Place()));
  }
}

void FileRule::ParseNotify(const rapidjson::Value& notify) {
  file_actions_ = ParseActions(notify, "File");
  if (type_ == ObjectType::Directory) directory_actions_ = ParseActions(notify, "Directory");
  if (file_actions_.empty() && directory_actions_.empty()) {
    throw RuleFault("Invalid rule.No notify action provided for the rule", {"notify"});
  }
}

const edr::EventTypes& FileRule::GetDirectoryActions() const {
  if (type_ != ObjectType::Directory) {
    throw EventRuleException("Fetching Directory actions for non-directory rule");
  }
  return directory_actions_;
}

const edr::EventTypes& FileRule::GetProcessActions() const {
  throw EventRuleException("No process actions defined for file rule");
}

const edr::EventTypes& FileRule::GetNetworkActions() const {
  throw EventRuleException("Function not defined for neither file nor directory");
}

MatchResult FileRule::Match(const edr::Event& event) const {
  ZLOG_DEBUG("Matching File Rule");
  switch (event.GetObjectType()) {
    case ObjectType::Directory:
      return MatchDirectory(event);
    case ObjectType::File:
      return MatchFile(event);
    default:
      throw EventRuleException("Invalid Rule");
  }
}

MatchResult FileRule::MatchDirectory(const edr::Event& event) const {
  if (directory_actions_.count(event.GetType()) == 0) {
    ZLOG_DEBUG("Event action not found in directory notify actions");
    return MatchResult::OutOfScope;
  }
  if (event.GetType() != EventType::Create) return MatchResult::Matched;
  ZLOG_DEBUG("Dropping directory create event");
  return MatchResult::OutOfScope;
}

MatchResult FileRule::MatchFile(const edr::Event& event) const {
  if (file_actions_.count(event.GetType()) == 0) {
    ZLOG_DEBUG("Event action not found in file notify actions");
    return MatchResult::OutOfScope;
  }
  if (type_ == ObjectType::Directory && !IsInDepth(event)) {
    ZLOG_DEBUG("Recursive depth for rule:" << id_ << " not matching with rule for event:" << event.GetId());
    return MatchResult::OutOfScope;
  }
  const edr::FileType file_type = event.GetFileType();
  if (file_type != edr::FileType::Regular && file_type != edr::FileType::SymbolicLink) {
    ZLOG_DEBUG("File is not regular or symlink. Skipping file type: " << static_cast<int>(file_type));
    return MatchResult::RefusedByFilter;
  }
  const common::ImageInfo* file = event.GetType() == EventType::Rename ? event.GetNewFile() : event.GetFile();
  const std::string_view path = file != nullptr ? WithoutTrailingSlash(file->GetPath()) : std::string_view();
  if (!HasSizeToProcess(event, path)) return MatchResult::RefusedByFilter;
  return MatchFilters(event);
}

bool FileRule::HasSizeToProcess(const edr::Event& event, std::string_view path) const {
  if (max_file_size_ == 0 || event.GetType() == EventType::Delete) return true;
  const std::int64_t size = event.GetFileSize();
  if (size == 0) {
    ZLOG_DEBUG("Skipping the file with size 0B");
    return false;
  }
  if (size <= max_file_size_) return true;
  ZLOG_DEBUG(" File size for " << path << " is more than max limit. Skipping it");
  return false;
}

MatchResult FileRule::MatchFilters(const edr::Event& event) const {
  if (event.GetType() == EventType::Delete) return MatchResult::Matched;
  if (filters_.Excludes(event)) return MatchResult::RefusedByFilter;
  ZLOG_DEBUG("Matching inclusion criterias");
  if (file_types_) {
    if (!Holds(*file_types_, event)) return MatchResult::RefusedByFilter;
    ZLOG_DEBUG("File type Inclusion criteria matched");
  }
  return filters_.Includes(event) ? MatchResult::Matched : MatchResult::RefusedByFilter;
}

bool FileRule::IsInDepth(const edr::Event& event) const {
  const NormalPath file(event.GetFile());
  if (event.GetType() != EventType::Rename) return IsPathInDepth(file.Get());
  if (IsWithin(file.Get(), normal_path_) && IsPathInDepth(file.Get())) return true;
  const NormalPath new_file(event.GetNewFile());
  return IsWithin(new_file.Get(), normal_path_) && IsPathInDepth(new_file.Get());
}

bool FileRule::IsPathInDepth(std::string_view path) const {
  return recursive_depth_ >= DepthOf(path) - path_depth_;
}

}  // namespace zagent::ioc::internal
