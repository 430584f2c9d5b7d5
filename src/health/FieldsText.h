#pragma once

#include <string>
#include <string_view>

#include "src/health/HealthStatus.h"

namespace zagent::health {

// `text` with a '?' in the place of what is no UTF-8: names of files are bytes, and a document is text.
std::string ReplaceInvalidText(const std::string& text);

// One JSON object of both; empty when there is nothing in them.
std::string WriteFields(const Fields& fields, const Fields& details);

}  // namespace zagent::health
