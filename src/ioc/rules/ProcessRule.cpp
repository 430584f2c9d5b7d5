#include "src/ioc/rules/ProcessRule.h"

#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/rules/FilterParser.h"
#include "src/ioc/rules/ProgramSize.h"
#include "src/ioc/rules/RuleFault.h"
#include "src/ioc/rules/RuleJson.h"

namespace zagent::ioc::internal {
namespace {

using edr::EventRuleException;
using edr::EventType;

edr::EventTypes ParseActions(const rapidjson::Value& words) {
  ZLOG_DEBUG("Reading notify actions for Process rule");
  edr::EventTypes types;
  for (rapidjson::SizeType i = 0; i < words.Size(); ++i) {
    if (!words[i].IsString()) {
      throw RuleFault("Invalid process action in notify", {"notify", "process", std::to_string(i)});
    }
    const std::string word = common::util::ToString(words[i]);
    if (word == "create") {
      types.insert({EventType::ProcessStart, EventType::ProcessClone});
    } else if (word == "delete") {
      types.insert(EventType::ProcessExit);
    } else {
      ZLOG_DEBUG("Unsupported value: " << word << " provided in notify");
    }
  }
  return types;
}

}  // namespace

ProcessRule::ProcessRule(const rapidjson::Value& json, std::int64_t max_file_size, const TtlProcessTree& tree)
    : max_file_size_(max_file_size) {
  ZLOG_DEBUG("Parsing Process rule");
  id_ = ParseRuleId(json);
  const rapidjson::Value& words = MandatoryNotify(json, "process");
  ZLOG_DEBUG("Parsing rule with id: " << id_);
  filters_.inclusion = ParseInclusionFilters(json, RuleKind::Process, tree);
  filters_.exclusion = ParseExclusionFilters(json, RuleKind::Process, tree);
  actions_ = ParseActions(words);
  ZLOG_DEBUG("Parsed rule with id: " << id_);
}

const edr::EventTypes& ProcessRule::GetDirectoryActions() const {
  throw EventRuleException("Fetching Directory actions for non-directory rule");
}

const edr::EventTypes& ProcessRule::GetFileActions() const {
  throw EventRuleException("Fetching File actions for rule that is neither file nor directory");
}

const edr::EventTypes& ProcessRule::GetNetworkActions() const {
  throw EventRuleException("Function not defined for neither process rule");
}

const std::string& ProcessRule::GetPath() const {
  throw EventRuleException("Fetching path not supported for process rule");
}

edr::MatchResult ProcessRule::Match(const edr::Event& event) const {
  ZLOG_DEBUG("Matching Process Rule");
  if (actions_.count(event.GetType()) == 0) {
    ZLOG_DEBUG("Event action not found in process notify actions");
    return edr::MatchResult::OutOfScope;
  }
  if (!HasProgramSizeToProcess(event, max_file_size_)) return edr::MatchResult::RefusedByFilter;
  return filters_.Match(event);
}

}  // namespace zagent::ioc::internal
