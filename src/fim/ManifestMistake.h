#pragma once

#include <string>

#include "common/src/util/JsonPlace.h"

namespace zagent::fim {

using common::util::JsonPlace;
using common::util::Within;

// One thing that is wrong in a manifest.
struct ManifestMistake {
  std::string reason;
  JsonPlace place;      // of the value in question; of the object in which something is missing
  std::string rule_id;  // empty outside of the rules, and for a rule without an id

  // The reason with rule and key: "Invalid Notify Flag (rule r1, key notify[1])".
  [[nodiscard]] std::string Text() const;
};

}  // namespace zagent::fim
