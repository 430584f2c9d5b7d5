#pragma once

#include "src/edr/RecordFields.h"

namespace zagent::audit::internal {

// What is read of a record of one type: as the kernel wrote it, or decoded.
struct RecordRendering {
  int type;
  edr::RecordFieldSet wanted;
  bool arguments;                // a0, a1 and so on
  edr::RecordFieldSet decoded;   // of the wanted ones
  edr::RecordFieldSet complete;  // the walk ends behind them; none: a later field of the same name may come
};

// Null for a type that no event reads.
[[nodiscard]] const RecordRendering* FindRendering(int type);

// Of the EXECVE record everything is decoded.
[[nodiscard]] bool DecodesArguments(const RecordRendering& rendering);

// Whether nothing that is wanted can come behind these fields.
[[nodiscard]] bool IsComplete(const RecordRendering& rendering, edr::RecordFieldSet present);

}  // namespace zagent::audit::internal
