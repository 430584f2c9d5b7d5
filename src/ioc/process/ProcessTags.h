#pragma once

namespace zagent::ioc::internal::process_tag {

// Tags that tell the state of a process; their value is empty. The two that the tree itself sets do not outlive the
// run.
inline constexpr const char* kExcluded = "Excluded";
inline constexpr const char* kReported = "Reported";
inline constexpr const char* kTerminated = "Terminated";  // its end was seen
inline constexpr const char* kTtlExpired = "TtlExpired";  // it has lived for its time, and its events are judged

// Tags whose value is the word of a verdict.
inline constexpr const char* kHashMatchingVerdict = "HashMatchingVerdict";
inline constexpr const char* kHeuristicsVerdict = "HeuristicsVerdict";

// In the snapshot alone: when the program was started, in ns since the epoch, where that is not when the process was.
inline constexpr const char* kProgramStart = "ProgramStart";

}  // namespace zagent::ioc::internal::process_tag
