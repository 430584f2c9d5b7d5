#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/src/util/Cleanse.h"
#include "common/src/util/UniqueFd.h"

namespace zagent::fakes {

// A secret that a test looks for in its own memory without holding it there itself: every byte is kept inverted.
class MaskedSecret {
 public:
  // Takes the secret and wipes the text.
  static MaskedSecret Take(std::string& text) {
    MaskedSecret secret;
    for (const char c : text) secret.masked_.push_back(static_cast<unsigned char>(~static_cast<unsigned char>(c)));
    common::util::Cleanse(text);
    return secret;
  }
  // As many random hexadecimal digits.
  static MaskedSecret Make(std::size_t size) {
    MaskedSecret secret;
    std::random_device random;
    for (std::size_t i = 0; i < size; ++i) {
      secret.masked_.push_back(
          static_cast<unsigned char>(~static_cast<unsigned char>("0123456789abcdef"[random() % 16])));
    }
    return secret;
  }

  // Appends it in the clear; the text has the room already, so that no copy stays behind.
  void AppendTo(std::string& text) const {
    if (text.capacity() - text.size() < masked_.size()) throw std::logic_error("MaskedSecret: no room");
    for (const unsigned char byte : masked_) text.push_back(static_cast<char>(~byte));
  }

  // How often the writable memory of this process holds it.
  [[nodiscard]] std::size_t CountInMemory() const {
    const common::util::UniqueFd memory(open("/proc/self/mem", O_RDONLY | O_CLOEXEC));
    if (!memory) throw std::runtime_error("MaskedSecret: no /proc/self/mem");
    std::vector<unsigned char> buffer(kStep + masked_.size());
    const auto own = reinterpret_cast<std::uint64_t>(buffer.data());
    std::size_t count = 0;
    std::ifstream maps("/proc/self/maps");
    std::string line;
    while (std::getline(maps, line)) {
      std::uint64_t begin = 0;
      std::uint64_t end = 0;
      std::string rights;
      char dash = 0;
      std::istringstream(line) >> std::hex >> begin >> dash >> end >> rights;
      // What is larger is the shadow of a sanitizer.
      if (!rights.starts_with("rw") || end - begin > kLargestRegion) continue;
      for (std::uint64_t at = begin; at < end; at += kStep) {
        const ssize_t got = pread(memory.Get(), buffer.data(), std::min<std::uint64_t>(buffer.size(), end - at),
                                  static_cast<off_t>(at));
        if (got > 0) count += CountIn(buffer, static_cast<std::size_t>(got), at, own);
      }
    }
    common::util::Cleanse(buffer);
    return count;
  }

 private:
  static constexpr std::uint64_t kStep = 1U << 20U;
  static constexpr std::uint64_t kLargestRegion = 1ULL << 32U;

  // Of the `size` bytes that were read at `address`; what lies in the buffer itself does not count, nor does what
  // begins in the next step.
  [[nodiscard]] std::size_t CountIn(const std::vector<unsigned char>& buffer, std::size_t size, std::uint64_t address,
                                    std::uint64_t own) const {
    std::size_t count = 0;
    const int first = static_cast<unsigned char>(~masked_.front());
    for (std::size_t i = 0; i + masked_.size() <= size && i < kStep; ++i) {
      const void* next = std::memchr(buffer.data() + i, first, size - i);
      if (next == nullptr) break;
      i = static_cast<std::size_t>(static_cast<const unsigned char*>(next) - buffer.data());
      if (i + masked_.size() > size || i >= kStep) break;
      std::size_t same = 0;
      while (same < masked_.size() && buffer[i + same] == static_cast<unsigned char>(~masked_[same])) ++same;
      const bool is_own = address + i >= own && address + i < own + buffer.size();
      if (same == masked_.size() && !is_own) ++count;
    }
    return count;
  }

  std::vector<unsigned char> masked_;
};

}  // namespace zagent::fakes
