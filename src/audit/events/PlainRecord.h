#pragma once

#include <string_view>

#include "src/audit/events/RecordRendering.h"
#include "src/audit/events/ValueStore.h"
#include "src/edr/RecordFields.h"

namespace zagent::audit::internal {

// Reads the wanted fields from a record's text: what auparse's field cursor would tell of the same record, in a
// fraction of its instructions. The values point into the text or, where the kernel wrote them in hexadecimal, into the
// store. Most records of a kernel are plain: words that are numbers, names in quotes or in hexadecimal, or "(null)".
// False, with some of the fields filled in, for a record that needs auparse: an address of a socket, keys in
// hexadecimal, blanks or quotes within a value, words that have no value.
[[nodiscard]] bool ReadPlainRecord(std::string_view text, const RecordRendering& rendering, ValueStore& values,
                                   edr::RecordFields& fields);

}  // namespace zagent::audit::internal
