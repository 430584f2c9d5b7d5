#include "common/src/util/ProcessTimes.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>

#include "common/src/util/UniqueFd.h"

namespace zagent::common::util {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
// 52 fields of at most 20 digits, and a name of at most 64 bytes.
constexpr std::size_t kStatSize = 2048;

std::optional<std::int64_t> ParseNumber(std::string_view text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end == text.data()) return std::nullopt;
  return number;
}

// The start in ticks of a line of the file stat.
std::optional<std::int64_t> StartTicks(std::string_view line) {
  // The command's name stands in parentheses and may hold blanks and parentheses of its own.
  std::size_t at = line.rfind(')');
  if (at == std::string_view::npos) return std::nullopt;
  constexpr int kFieldsUpToTheStart = 20;  // the name is the 2nd field of the line, the start the 22nd
  for (int field = 0; field < kFieldsUpToTheStart; ++field) {
    at = line.find(' ', at + 1);
    if (at == std::string_view::npos) return std::nullopt;
  }
  return ParseNumber(line.substr(at + 1));
}

}  // namespace

std::int64_t ReadBootTime(const std::string& proc_root) {
  constexpr std::string_view kBootTime = "btime ";
  std::ifstream in(proc_root + "/stat");
  std::string line;
  while (std::getline(in, line)) {
    if (!line.starts_with(kBootTime)) continue;
    if (const auto seconds = ParseNumber(std::string_view(line).substr(kBootTime.size()))) return *seconds;
  }
  throw std::runtime_error("Failed to read the boot time from " + proc_root + "/stat");
}

std::optional<std::int64_t> ReadStartSinceBoot(std::int32_t pid, const std::string& proc_root) {
  // Each process that starts is asked about, and many have ended by then: a stream costs more than the look.
  const UniqueFd file(open((proc_root + "/" + std::to_string(pid) + "/stat").c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return std::nullopt;
  std::array<char, kStatSize> text{};
  std::size_t size = 0;
  // To its end: the name may hold line ends. A process that ends meanwhile makes the read fail.
  for (ssize_t got = 1; got > 0 && size < text.size();) {
    got = read(file.Get(), text.data() + size, text.size() - size);
    if (got < 0) return std::nullopt;
    size += static_cast<std::size_t>(got);
  }
  const auto ticks = StartTicks({text.data(), size});
  if (!ticks) return std::nullopt;
  static const std::int64_t kTicksPerSecond = sysconf(_SC_CLK_TCK);
  return *ticks / kTicksPerSecond * kNanosecondsPerSecond +
         *ticks % kTicksPerSecond * kNanosecondsPerSecond / kTicksPerSecond;
}

std::int64_t StartSinceEpoch(std::int64_t start_since_boot, const std::string& proc_root) {
  return ReadBootTime(proc_root) * kNanosecondsPerSecond + start_since_boot;
}

}  // namespace zagent::common::util
