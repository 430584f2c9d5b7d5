#include "src/ioc/rules/NetworkRule.h"

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

// "close" is a word, too: no event tells of it.
edr::EventTypes ParseActions(const rapidjson::Value& words) {
  ZLOG_DEBUG("Reading notify actions for Network rule");
  edr::EventTypes types;
  for (rapidjson::SizeType i = 0; i < words.Size(); ++i) {
    if (!words[i].IsString()) {
      throw RuleFault("Invalid network action in notify", {"notify", "network", std::to_string(i)});
    }
    const std::string word = common::util::ToString(words[i]);
    if (word == "establish") {
      types.insert({EventType::Connect, EventType::Accept});
    } else if (word == "listen") {
      types.insert(EventType::Bind);
    } else if (word != "close") {
      ZLOG_DEBUG("Unsupported value: " << word << " provided in notify");
    }
  }
  return types;
}

}  // namespace

NetworkRule::NetworkRule(const rapidjson::Value& json, std::int64_t max_file_size, const TtlProcessTree& tree)
    : max_file_size_(max_file_size) {
  ZLOG_DEBUG("Parsing Network Rule");
  id_ = ParseRuleId(json);
  const rapidjson::Value& words = MandatoryNotify(json, "network");
  ZLOG_DEBUG("Parsing rule with id: " << id_);
  filters_.inclusion = ParseInclusionFilters(json, RuleKind::Network, tree);
  filters_.exclusion = ParseExclusionFilters(json, RuleKind::Network, tree);
  actions_ = ParseActions(words);
  ZLOG_DEBUG("Parsed Network rule with id: " << id_);
}

const edr::EventTypes& NetworkRule::GetDirectoryActions() const {
  throw EventRuleException("Fetching Directory actions for non-directory rule");
}

const edr::EventTypes& NetworkRule::GetFileActions() const {
  throw EventRuleException("Fetching File actions for rule that is neither file nor directory");
}

const edr::EventTypes& NetworkRule::GetProcessActions() const {
  throw EventRuleException("No process actions defined for network rule");
}

const std::string& NetworkRule::GetPath() const {
  throw EventRuleException("Function not defined for network rule");
}

edr::MatchResult NetworkRule::Match(const edr::Event& event) const {
  ZLOG_DEBUG("Matching Network Rule");
  if (actions_.count(event.GetType()) == 0) {
    ZLOG_DEBUG("Event action not found in network notify actions");
    return edr::MatchResult::OutOfScope;
  }
  if (!HasProgramSizeToProcess(event, max_file_size_)) return edr::MatchResult::RefusedByFilter;
  return filters_.Match(event);
}

}  // namespace zagent::ioc::internal
