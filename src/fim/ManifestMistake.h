#pragma once

#include <string>
#include <vector>

namespace zagent::fim {

// What leads to a value in a JSON document: names of members, and positions in arrays as decimal numbers.
using JsonPlace = std::vector<std::string>;

// `inner`, seen from where `outer` begins.
JsonPlace Within(JsonPlace outer, const JsonPlace& inner);

// One thing that is wrong in a manifest.
struct ManifestMistake {
  std::string reason;
  JsonPlace place;      // of the value in question; of the object in which something is missing
  std::string rule_id;  // empty outside of the rules, and for a rule without an id

  // The reason with rule and key: "Invalid Notify Flag (rule r1, key notify[1])".
  [[nodiscard]] std::string Text() const;
};

}  // namespace zagent::fim
