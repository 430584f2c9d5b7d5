#pragma once

#include <map>
#include <string>

namespace zagent::tools {

// The texts of docs/schema/<name>.schema.json by name.
const std::map<std::string, std::string>& Schemas();

}  // namespace zagent::tools
