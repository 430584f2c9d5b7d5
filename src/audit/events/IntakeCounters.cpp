#include "src/audit/events/IntakeCounters.h"

namespace zagent::audit {

IntakeCounters::Snapshot IntakeCounters::Take() const {
  Snapshot snapshot{};
  for (std::size_t i = 0; i < kReasonCount; ++i) snapshot[i] = counts_[i].load(std::memory_order_relaxed);
  return snapshot;
}

const char* IntakeCounters::NameOf(Reason reason) {
  switch (reason) {
    case Reason::BytesAtBound:
      return "bytes dropped at the parser's bound";
    case Reason::BytesAtStop:
      return "bytes not parsed at the stop";
    case Reason::NotBuilt:
      return "events that could not be built";
    case Reason::UnsupportedCall:
      return "events of unsupported calls";
    case Reason::Unplaced:
      return "events without a trusted path";
    case Reason::LeftAtStop:
      return "events left at the stop";
    case Reason::FileReplaced:
      return "events of replaced files";
    case Reason::NotProcessed:
      return "events that could not be processed";
  }
  return "unknown";
}

std::string IntakeCounters::Describe(const Snapshot& counts) {
  std::string text;
  for (std::size_t i = 0; i < kReasonCount; ++i) {
    if (counts[i] == 0) continue;
    if (!text.empty()) text += ", ";
    text.append(NameOf(static_cast<Reason>(i))).append(": ").append(std::to_string(counts[i]));
  }
  return text;
}

}  // namespace zagent::audit
