#include "common/src/storage/SpoolDirectory.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <system_error>
#include <utility>

#include "common/src/storage/StorageResult.h"

namespace zagent::common::internal {
namespace {

constexpr std::size_t kIndexWidth = 4;

}  // namespace

SpoolDirectory::SpoolDirectory(std::string path, std::string prefix, std::uint64_t max_index)
    : path_(std::move(path)), prefix_(std::move(prefix)), max_index_(max_index) {}

std::string SpoolDirectory::FileName(std::uint64_t index) const {
  if (index == 0 || index > max_index_) throw StorageException("SpoolStorage: File index out of range");
  const std::string digits = std::to_string(index);
  const std::string padding(kIndexWidth - std::min(kIndexWidth, digits.size()), '0');
  return path_ + "/" + prefix_ + "." + padding + digits;
}

std::uint64_t SpoolDirectory::IndexOf(const std::string& name) const {
  if (name.size() != prefix_.size() + 1 + kIndexWidth) return 0;
  if (name.compare(0, prefix_.size(), prefix_) != 0 || name[prefix_.size()] != '.') return 0;
  std::uint64_t index = 0;
  const char* const end = name.data() + name.size();
  const auto parsed = std::from_chars(end - kIndexWidth, end, index);
  if (parsed.ec != std::errc() || parsed.ptr != end || index > max_index_) return 0;
  return index;
}

std::uint64_t SpoolDirectory::IndexOfPath(const std::string& path) const {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos) return 0;
  const std::uint64_t index = IndexOf(path.substr(slash + 1));
  return index != 0 && FileName(index) == path ? index : 0;
}

std::optional<struct stat> SpoolDirectory::Stat(std::uint64_t index) const {
  struct stat info {};
  if (lstat(FileName(index).c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  return info;
}

std::vector<SpoolDirectory::Entry> SpoolDirectory::List(const char* operation) const {
  std::vector<Entry> entries;
  std::error_code error;
  for (std::filesystem::directory_iterator file(path_, error), end; !error && file != end; file.increment(error)) {
    const std::uint64_t index = IndexOf(file->path().filename().string());
    if (index == 0) continue;
    if (const auto info = Stat(index)) entries.push_back({index, static_cast<std::uint64_t>(info->st_size)});
  }
  if (error) throw StorageException::FromErrno(operation, error.value());
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.index < b.index; });
  return entries;
}

}  // namespace zagent::common::internal
