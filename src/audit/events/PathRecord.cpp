#include "src/audit/events/PathRecord.h"

#include <sys/stat.h>

#include <charconv>
#include <cstdlib>

#include "src/audit/events/PathResolution.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::audit::internal {
namespace {

// 0 for what is no number: nothing on disk will match it.
template <typename Number>
Number ToNumber(const std::string& text) {
  Number number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

std::string TypeWordOf(const edr::RecordFields& fields) {
  for (const char* name : {"objtype", "nametype"}) {
    const auto word = fields.find(name);
    if (word != fields.end()) return word->second;
  }
  return {};
}

// Where to look for an object that the record does not name.
std::string FindUnnamed(std::uint64_t inode, const std::string& hint, const std::string& cwd) {
  if (!hint.empty() && hint.front() == '/') return FindByInode(inode, hint);
  if (hint.empty() && !cwd.empty()) return FindByInode(inode, cwd);
  return FindByInode(inode, NormalisePath(cwd + "/" + hint));
}

}  // namespace

PathRecord::PathRecord(const edr::RecordFields& fields, const std::string& cwd, const std::string& parent_path) {
  const auto inode_text = fields.find("inode");
  if (inode_text == fields.end()) {
    throw edr::EventException("Cannot create PathRecord without inode information");
  }
  inode = ToNumber<std::uint64_t>(inode_text->second);
  if (const auto dev = fields.find("dev"); dev != fields.end()) device = dev->second;
  item = ToNumber<std::uint64_t>(fields.at("item"));
  type_word = TypeWordOf(fields);

  path = fields.at("name");
  if (path == "/proc/self") throw edr::EventException("Got proc/self in path record");
  if (path.empty() || path == "(null)") path = FindUnnamed(inode, type_word == "PARENT" ? "" : parent_path, cwd);

  const std::string& mode_text = fields.at("mode");
  const auto mode = static_cast<std::uint32_t>(std::strtoull(mode_text.c_str(), nullptr, 8));
  is_symlink = S_ISLNK(mode);
  is_file = S_ISREG(mode) || is_symlink;
  if (!is_file && !S_ISDIR(mode)) throw edr::EventException("Unknown mode " + mode_text + " in PATH record");
  group_id = ToNumber<std::uint32_t>(fields.at("ogid"));
  owner_id = ToNumber<std::uint32_t>(fields.at("ouid"));
  permission = common::PermissionOf(mode);
}

bool PathRecord::IsSameObject(const PathRecord& other) const {
  return inode == other.inode && device == other.device;
}

void PathRecord::Combine(const PathRecord& other) {
  if (!IsSameObject(other)) {
    throw edr::EventException("Cannot combine records with missing or different inodes");
  }
  if (path.empty()) path = other.path;
}

}  // namespace zagent::audit::internal
