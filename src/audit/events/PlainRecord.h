#pragma once

#include <string_view>

#include "src/audit/events/RecordRendering.h"
#include "src/edr/RecordFields.h"

namespace zagent::audit::internal {

// Reads the wanted fields from a record's text, which the values point into: what auparse's field cursor would tell of
// the same record, in three fifths of its instructions. Most records of a kernel are plain: words that are numbers,
// quoted names without a blank, or "(null)". False, with some of the fields filled in, for a record that needs auparse:
// one with values in hexadecimal that are decoded, with blanks or quotes within a value, with words that have no value.
[[nodiscard]] bool ReadPlainRecord(std::string_view text, const RecordRendering& rendering, edr::RecordFields& fields);

}  // namespace zagent::audit::internal
