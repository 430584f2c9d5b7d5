#include "common/src/storage/SpoolDirectory.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <utility>

#include "common/src/storage/StorageResult.h"
#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"

namespace zagent::common::internal {
namespace {

constexpr std::size_t kIndexWidth = 4;

}  // namespace

SpoolDirectory::SpoolDirectory(std::string path, std::string prefix, std::uint64_t max_index, FileCalls& calls)
    : path_(std::move(path)), prefix_(std::move(prefix)), max_index_(max_index), calls_(calls) {}

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

int SpoolDirectory::Look(std::uint64_t index, struct stat& info) const {
  const std::string name = FileName(index);
  if (calls_.Lstat(name.c_str(), &info) == 0) return S_ISREG(info.st_mode) ? 0 : ENOENT;
  const int error = errno;
  if (error != ENOENT) ZLOG_ERROR("SpoolStorage: Failed to stat " << name << ": " << util::ErrnoText(error));
  return error;
}

std::optional<struct stat> SpoolDirectory::Stat(std::uint64_t index) const {
  struct stat info {};
  return Look(index, info) == 0 ? std::optional(info) : std::nullopt;
}

std::vector<SpoolDirectory::Entry> SpoolDirectory::List(const char* operation) const {
  std::vector<std::string> names;
  if (calls_.ListFolder(path_.c_str(), names) != 0) throw StorageException::FromErrno(operation, errno);
  std::vector<Entry> entries;
  for (const std::string& name : names) {
    const std::uint64_t index = IndexOf(name);
    if (index == 0) continue;
    struct stat info {};
    const int error = Look(index, info);
    if (error != ENOENT) entries.push_back({index, error == 0 ? static_cast<std::uint64_t>(info.st_size) : 0});
  }
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.index < b.index; });
  return entries;
}

}  // namespace zagent::common::internal
