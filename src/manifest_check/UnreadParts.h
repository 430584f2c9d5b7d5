#pragma once

#include <string>
#include <vector>

#include "common/src/util/Json.h"
#include "common/src/util/JsonPlace.h"

namespace zagent::manifest_check {

// Something in a manifest of indicators of compromise that its reader passes over.
struct UnreadPart {
  std::string text;
  common::util::JsonPlace place;
};

// The keys and words of a good manifest that nobody reads: a misspelt "exclusionFilter" excludes nothing.
std::vector<UnreadPart> FindUnreadParts(const rapidjson::Value& document);

// Whether a rule of a good manifest is one that the kernel is asked about: no trusted program, and of a known type.
bool IsForKernel(const rapidjson::Value& rule);
bool IsOfTrustedProgram(const rapidjson::Value& rule);

}  // namespace zagent::manifest_check
