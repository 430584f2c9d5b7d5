#include "src/audit/events/PathRecord.h"

#include <sys/stat.h>

#include <array>
#include <charconv>
#include <string_view>
#include <utility>

#include "src/audit/events/PathResolution.h"
#include "src/edr/Event.h"
#include "src/edr/process/NameService.h"

namespace zagent::audit::internal {
namespace {

using edr::RecordField;

// 0 for what is no number: nothing on disk will match it.
template <typename Number>
Number ToNumber(std::string_view text, int base = 10) {
  Number number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number, base);
  return number;
}

struct Word {
  std::string_view text;
  TypeWord word;
};
constexpr std::array kWords = {Word{"PARENT", TypeWord::Parent}, Word{"CREATE", TypeWord::Create},
                               Word{"DELETE", TypeWord::Delete}, Word{"NORMAL", TypeWord::Normal}};

TypeWord TypeWordOf(const edr::RecordFields& fields) {
  const std::string_view text = TypeWordTextOf(fields);
  if (text.empty()) return TypeWord::None;
  for (const Word& known : kWords) {
    if (known.text == text) return known.word;
  }
  return TypeWord::Unknown;
}

std::string_view WithoutLastSlashes(std::string_view name) {
  const std::size_t last = name.find_last_not_of('/');
  return last == std::string_view::npos ? name.substr(0, 1) : name.substr(0, last + 1);
}

}  // namespace

std::string FindUnnamed(std::uint64_t inode, const std::string& parent_path, const std::string& cwd) {
  if (!parent_path.empty() && parent_path.front() == '/') return FindByInode(inode, parent_path);
  if (parent_path.empty() && !cwd.empty()) return FindByInode(inode, cwd);
  return FindByInode(inode, NormalisePath(cwd + "/" + parent_path));
}

std::string_view TypeWordTextOf(const edr::RecordFields& fields) {
  return fields.Find(fields.Has(RecordField::ObjType) ? RecordField::ObjType : RecordField::NameType);
}

const char* TextOf(TypeWord word) {
  for (const Word& known : kWords) {
    if (known.word == word) return known.text.data();
  }
  return "";
}

PathRecord::PathRecord(const edr::RecordFields& fields, const std::string& cwd, const std::string& parent_path)
    : PathRecord(fields) {
  if (path.empty()) path = FindUnnamed(inode, type_word == TypeWord::Parent ? "" : parent_path, cwd);
}

PathRecord::PathRecord(const edr::RecordFields& fields) {
  if (!fields.Has(RecordField::Inode)) {
    throw edr::EventException("Cannot create PathRecord without inode information");
  }
  inode = ToNumber<std::uint64_t>(fields.Find(RecordField::Inode));
  device = fields.Find(RecordField::Dev);
  item = ToNumber<std::uint64_t>(fields.At(RecordField::Item));
  type_word = TypeWordOf(fields);

  const std::string_view name = fields.At(RecordField::Name);
  if (name == "/proc/self") throw edr::EventException("Got proc/self in path record");
  path = type_word == TypeWord::Parent ? name : WithoutLastSlashes(name);

  const std::string_view mode_text = fields.At(RecordField::Mode);
  const auto mode = ToNumber<std::uint32_t>(mode_text, 8);
  is_symlink = S_ISLNK(mode);
  is_file = S_ISREG(mode) || is_symlink;
  if (!is_file && !S_ISDIR(mode)) {
    throw edr::EventException("Unknown mode " + std::string(mode_text) + " in PATH record");
  }
  group_id = ToNumber<std::uint32_t>(fields.At(RecordField::OGid));
  owner_id = ToNumber<std::uint32_t>(fields.At(RecordField::OUid));
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

common::ImageInfo ImageOf(const PathRecord& record, std::string path, std::string text) {
  return {record.device,
          record.permission,
          record.inode,
          std::move(path),
          record.group_id,
          common::GroupName(record.group_id),
          common::UserName(record.owner_id),
          record.owner_id,
          std::move(text)};
}

}  // namespace zagent::audit::internal
