#include "src/fim/ManifestMistake.h"

#include <cstddef>

namespace zagent::fim {
namespace {

constexpr std::size_t kRuleSteps = 4;  // data, fim, rules, <position>

}  // namespace

std::string ManifestMistake::Text() const {
  const std::string key = common::util::KeyText(place, rule_id.empty() ? 0 : kRuleSteps);
  std::string where = rule_id.empty() ? "" : "rule " + rule_id;
  if (!key.empty()) where += (where.empty() ? "key " : ", key ") + key;
  return where.empty() ? reason : reason + " (" + where + ")";
}

}  // namespace zagent::fim
