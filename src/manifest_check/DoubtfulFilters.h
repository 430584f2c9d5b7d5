#pragma once

#include <vector>

#include "common/src/util/Json.h"
#include "src/fim/ManifestMistake.h"

namespace zagent::manifest_check {

// What the filters of a good manifest say and hardly anybody means: exclusions that are not looked at, those that drop
// everything, and globs that are malformed.
std::vector<fim::ManifestMistake> FindDoubtfulFilters(const rapidjson::Value& document);

}  // namespace zagent::manifest_check
