#pragma once

#include <string_view>

#include "src/ioc/protobuf/BatchItem.h"

namespace zagent::ioc::internal::protobuf {

// Whether every reader of the schema takes the bytes as a message of this kind, as a look at them alone can tell: they
// are whole fields of numbers, and of texts and actors that this program fills, and each text is ASCII without NUL.
// What this program makes is nearly always like that. False says nothing: then a parser has to decide.
[[nodiscard]] bool IsPlainMessage(Kind kind, std::string_view bytes);

}  // namespace zagent::ioc::internal::protobuf
