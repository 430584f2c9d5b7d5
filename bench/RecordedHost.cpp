#include "bench/RecordedHost.h"

#include <sys/stat.h>

#include <filesystem>
#include <string_view>
#include <unordered_map>

#include "bench/PreparedRoot.h"
#include "common/src/util/DeviceText.h"

namespace zagent::bench {
namespace {

namespace fs = std::filesystem;

constexpr int kFiles = 500;
constexpr const char* kBusybox = "/bin/busybox";

// The text between `before` and the next blank; empty when there is none.
std::string_view FieldOf(std::string_view record, std::string_view before) {
  const std::size_t at = record.find(before);
  if (at == std::string_view::npos) return {};
  const std::string_view rest = record.substr(at + before.size());
  return rest.substr(0, rest.find(' '));
}

// "inode=<n> dev=<device>" of what a record calls `name`; empty when it is not here.
std::string IdentityOf(const std::string& name, bool is_link) {
  if (name == "/proc/self/exe") return is_link ? std::string() : IdentityOf(kBusybox, false);
  struct stat result {};
  if ((is_link ? lstat(name.c_str(), &result) : stat(name.c_str(), &result)) != 0) return {};
  return "inode=" + std::to_string(result.st_ino) + " dev=" + common::util::DeviceText(result.st_dev);
}

class Identities {
 public:
  // The record with the identity of its file.
  void Append(std::string_view record, std::string& log) {
    const std::size_t inode = record.find(" inode=");
    const std::size_t mode = record.find(" mode=");
    const std::string_view name = FieldOf(record, " name=\"");
    if (inode == std::string_view::npos || mode == std::string_view::npos || name.empty()) {
      log += record;
      return;
    }
    const bool is_link = FieldOf(record, " mode=").starts_with("0120");
    const std::string& identity = Of(std::string(name.substr(0, name.size() - 1)), is_link);
    if (identity.empty()) {
      log += record;
      return;
    }
    log.append(record.substr(0, inode + 1)).append(identity).append(record.substr(mode));
  }

 private:
  const std::string& Of(const std::string& name, bool is_link) {
    const auto [entry, is_new] = known_[is_link ? 1 : 0].try_emplace(name);
    if (is_new) entry->second = IdentityOf(name, is_link);
    return entry->second;
  }

  std::unordered_map<std::string, std::string> known_[2];
};

}  // namespace

void CreateRecordedFiles() {
  fs::create_directories("/srv/w");
  for (int number = 0; number < kFiles; ++number) {
    const std::string ending = "-" + std::to_string(number) + ".txt";
    WriteFile("/srv/w/file" + ending, "x");
    fs::create_hard_link("/srv/w/file" + ending, "/srv/w/renamed" + ending);
  }
  for (const char* program : {kBusybox, "/bin/gen", "/sbin/auditctl", "/sbin/auditd"}) {
    WriteFile(program, "a program");
    fs::permissions(program, fs::perms(0755));
  }
  fs::create_symlink(kBusybox, "/bin/true");
}

std::string WithIdentitiesOfThisRoot(const std::string& log) {
  Identities identities;
  std::string rewritten;
  rewritten.reserve(log.size() + log.size() / 16);
  for (std::size_t at = 0; at < log.size();) {
    const std::size_t end = log.find('\n', at);
    const std::size_t length = (end == std::string::npos ? log.size() : end + 1) - at;
    const std::string_view record(log.data() + at, length);
    if (record.starts_with("type=PATH ")) {
      identities.Append(record, rewritten);
    } else {
      rewritten += record;
    }
    at += length;
  }
  return rewritten;
}

}  // namespace zagent::bench
