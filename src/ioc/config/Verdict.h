#pragma once

#include <cstdint>
#include <string>

namespace zagent::ioc {

// What an engine thinks of an event or a process: the higher, the worse.
enum class Verdict : std::uint8_t { Clean = 1, CleanWithoutHash = 2, Unknown = 3, Suspicious = 4, Malicious = 5 };

// The word that stands in logs and in the tags of a process: the enumerator's name.
// Throws std::runtime_error "Cannot convert verdict <number> to string".
const std::string& VerdictWord(Verdict verdict);

// Throws std::runtime_error "Unknown verdict string: <word>".
Verdict VerdictFromWord(const std::string& word);

}  // namespace zagent::ioc
