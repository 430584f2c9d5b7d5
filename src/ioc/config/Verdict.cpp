#include "src/ioc/config/Verdict.h"

#include <array>
#include <cstddef>
#include <stdexcept>
#include <unordered_map>

namespace zagent::ioc {
namespace {

// By the verdict's number; the first is of none. Neither table is ever destroyed: threads may outlive main's statics.
using Words = std::array<std::string, 6>;

const Words& WordTable() {
  static const Words* const words =  // NOLINTNEXTLINE(cppcoreguidelines-owning-memory)
      new Words{"", "Clean", "CleanWithoutHash", "Unknown", "Suspicious", "Malicious"};
  return *words;
}

std::unordered_map<std::string, Verdict> MakeVerdictTable() {
  std::unordered_map<std::string, Verdict> verdicts;
  for (std::uint8_t number = 1; number < WordTable().size(); ++number) {
    verdicts.emplace(WordTable().at(number), static_cast<Verdict>(number));
  }
  return verdicts;
}

}  // namespace

const std::string& VerdictWord(Verdict verdict) {
  const auto number = static_cast<std::size_t>(verdict);
  if (number == 0 || number >= WordTable().size()) {
    throw std::runtime_error("Cannot convert verdict " + std::to_string(number) + " to string");
  }
  return WordTable().at(number);
}

Verdict VerdictFromWord(const std::string& word) {
  static const auto* const verdicts =  // NOLINTNEXTLINE(cppcoreguidelines-owning-memory)
      new std::unordered_map<std::string, Verdict>(MakeVerdictTable());
  const auto found = verdicts->find(word);
  if (found == verdicts->end()) throw std::runtime_error("Unknown verdict string: " + word);
  return found->second;
}

}  // namespace zagent::ioc
