#pragma once

#include <cstdint>
#include <optional>

namespace zagent::audit::internal {

// The x86-64 number of a call that a 32-bit program made by its i386 number. `a0` is the call's first argument: the
// sub-call of socketcall. Nothing for calls that x86-64 does not have.
//
// Arguments keep their places, save for socketcall, whose own lie in the program's memory, and for lengths and times,
// which nobody here reads.
//
// Any thread. The names are compared once; after that a call is one look into a table.
[[nodiscard]] std::optional<std::uint32_t> TranslateCompatCall(std::uint32_t call, std::uint64_t a0);

}  // namespace zagent::audit::internal
