#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zagent::tools {

// Holds a JSON text against the schema docs/schema/<name>.schema.json. Nothing when it follows it, else where it does
// not and by which word of the schema: "/events/0/size: required". Nothing recurses into the text.
//
// Throws std::runtime_error for a schema that does not exist.
std::optional<std::string> FindSchemaFault(const std::string& name, std::string_view json);

}  // namespace zagent::tools
