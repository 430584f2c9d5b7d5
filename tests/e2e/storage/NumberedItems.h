#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/src/storage/StorageResult.h"

namespace zagent::e2e {

// Items that tell whether they are whole: "<number> <filling> <number>\n", of very different lengths.
inline std::string MakeItem(std::uint64_t number) {
  const std::size_t length = number * 7919 % 400;
  const std::string digits = std::to_string(number);
  return digits + " " + std::string(length, static_cast<char>('a' + number % 26)) + " " + digits + "\n";
}

// The numbers of a file of such items; nothing when one of them is not whole.
inline std::optional<std::vector<std::uint64_t>> ParseItems(const common::Bytes& file) {
  std::vector<std::uint64_t> numbers;
  const std::string text(file.begin(), file.end());
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = text.find('\n', at);
    const std::size_t blank = text.find(' ', at);
    if (end == std::string::npos || blank > end || blank - at > 18) return std::nullopt;
    const std::string digits = text.substr(at, blank - at);
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
    numbers.push_back(std::stoull(digits));
    if (text.compare(at, end + 1 - at, MakeItem(numbers.back())) != 0) return std::nullopt;
    at = end + 1;
  }
  return numbers;
}

}  // namespace zagent::e2e
