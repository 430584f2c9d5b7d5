#include "src/fim/ManifestMistake.h"

#include <cstddef>

namespace zagent::fim {
namespace {

constexpr std::size_t kRuleSteps = 4;  // data, fim, rules, <position>

std::string KeyText(const JsonPlace& place, std::size_t first) {
  std::string text;
  for (std::size_t i = first; i < place.size(); ++i) {
    const std::string& step = place[i];
    if (!step.empty() && step.find_first_not_of("0123456789") == std::string::npos) {
      text += "[" + step + "]";
    } else {
      text += (text.empty() ? "" : ".") + step;
    }
  }
  return text;
}

}  // namespace

JsonPlace Within(JsonPlace outer, const JsonPlace& inner) {
  outer.insert(outer.end(), inner.begin(), inner.end());
  return outer;
}

std::string ManifestMistake::Text() const {
  const std::string key = KeyText(place, rule_id.empty() ? 0 : kRuleSteps);
  std::string where = rule_id.empty() ? "" : "rule " + rule_id;
  if (!key.empty()) where += (where.empty() ? "key " : ", key ") + key;
  return where.empty() ? reason : reason + " (" + where + ")";
}

}  // namespace zagent::fim
