#pragma once

#include <vector>

#include "common/src/util/Json.h"
#include "src/fim/ManifestMistake.h"

namespace zagent::manifest_check {

// The keys of a good manifest that its reader passes over: "excludeFilters" excludes nothing.
std::vector<fim::ManifestMistake> FindUnknownKeys(const rapidjson::Value& document);

}  // namespace zagent::manifest_check
