#include "src/audit/events/FileEvent.h"

#include <cerrno>
#include <cstdlib>
#include <utility>

#include "common/src/util/DeviceText.h"
#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "src/audit/events/PathResolution.h"
#include "src/edr/process/NameService.h"

namespace zagent::audit::internal {
namespace {

struct Free {
  void operator()(char* text) const { std::free(text); }  // NOLINT: canonicalize_file_name allocates with malloc
};

bool IsChangeWord(TypeWord word) {
  return word == TypeWord::Create || word == TypeWord::Delete;
}

// What a PATH record without a type word is, by its place among the records that the kernel announced.
enum class Role { Parent, Object, Ignored, InOrder, None };

Role RoleOf(std::uint64_t items, std::uint64_t item) {
  struct Row {
    std::uint64_t items;
    std::uint64_t item;
    Role role;
  };
  static constexpr Row kRows[] = {
      {1, 0, Role::Object},  {2, 0, Role::Parent}, {2, 1, Role::Object},
      {3, 0, Role::Ignored}, {3, 1, Role::Parent}, {3, 2, Role::Object},
  };
  if (items < 1 || items > 3) return Role::InOrder;
  for (const Row& row : kRows) {
    if (row.items == items && row.item == item) return row.role;
  }
  return Role::None;
}

}  // namespace

FileEvent::State::State(const struct stat& result)
    : mode(result.st_mode),
      uid(result.st_uid),
      gid(result.st_gid),
      size(result.st_size),
      access_time(result.st_atime),
      modification_time(result.st_mtime),
      change_time(result.st_ctime) {}

FileEvent::FileEvent(PathRecord object, PathRecord parent, const FileEvent& rename)
    : SyscallEvent(rename),
      context_(rename.context_),
      cwd_(rename.cwd_),
      process_title_(rename.process_title_),
      records_(std::make_unique<Records>(Records{std::move(object), std::move(parent)})) {}

FileEvent::FileEvent(const FileEvent& other)
    : SyscallEvent(other),
      file_(other.file_),
      state_(other.state_),
      is_symlink_(other.is_symlink_),
      object_type_(other.object_type_),
      parent_device_(other.parent_device_),
      parent_inode_(other.parent_inode_),
      context_(other.context_),
      is_gone_(other.is_gone_),
      has_cwd_(other.has_cwd_),
      cwd_(other.cwd_),
      process_title_(other.process_title_),
      object_word_(other.object_word_),
      on_demand_(other.on_demand_) {}

void FileEvent::ParseRecord(int type, const edr::RecordFields& fields) {
  if (type == record_type::kPath) {
    ParsePath(fields);
  } else if (type == record_type::kProctitle) {
    process_title_ = fields.Find(edr::RecordField::Proctitle);
  } else if (type == record_type::kCwd) {
    if (has_cwd_) {
      throw edr::EventException("Multiple CWD records found in " + GetAction() + " event with ID " +
                                std::to_string(GetId()));
    }
    has_cwd_ = true;
    cwd_ = fields.Find(edr::RecordField::Cwd);
  } else {
    SyscallEvent::ParseRecord(type, fields);
  }
}

std::optional<PathRecord> FileEvent::BuildPath(const edr::RecordFields& fields,
                                               const std::optional<PathRecord>& parent) const {
  static const std::string kNoParent;
  try {
    return PathRecord(fields, cwd_, parent ? parent->path : kNoParent);
  } catch (const edr::EventException& error) {
    // Not every record is needed: if this one was, the event fails for its lack.
    ZLOG_TRACE(error.what());
    return std::nullopt;
  }
}

void FileEvent::HoldOrCombine(std::optional<PathRecord>& slot, PathRecord record) {
  if (slot) {
    slot->Combine(record);
  } else {
    slot = std::move(record);
  }
}

TypeWord FileEvent::ParsePath(const edr::RecordFields& fields) {
  std::optional<PathRecord> record = BuildPath(fields, records_->parent);
  if (!record) return TypeWord::None;
  const TypeWord word = record->type_word;
  if (word == TypeWord::None) {
    ParseItemPath(std::move(*record));
  } else if (word == TypeWord::Parent) {
    HoldOrCombine(records_->parent, std::move(*record));
  } else if (word != TypeWord::Unknown) {
    MergeObject(std::move(*record));
  } else {
    ZLOG_TRACE("Unsupported PATH record in Create event of type: " << TypeWordTextOf(fields));
  }
  return word;
}

void FileEvent::MergeObject(PathRecord record) {
  std::optional<PathRecord>& held = records_->object;
  // A call that goes through a symbolic link names the link first.
  if (!held || held->is_symlink) {
    held = std::move(record);
    return;
  }
  if (held->type_word == record.type_word) {
    held->Combine(record);
    return;
  }
  const bool held_is_change = IsChangeWord(held->type_word);
  if (!held_is_change && !IsChangeWord(record.type_word)) {
    throw edr::EventException("Cannot combine records of different objtype");
  }
  if (!held_is_change) std::swap(*held, record);
  if (held->IsSameObject(record)) held->Combine(record);
}

void FileEvent::ParseItemPath(PathRecord record) {
  Role role = RoleOf(AnnouncedItems(), record.item);
  if (role == Role::Ignored) return;
  if (role == Role::InOrder) role = records_->parent ? Role::Object : Role::Parent;
  std::optional<PathRecord>& slot = role == Role::Parent ? records_->parent : records_->object;
  if (role == Role::None || slot) {
    throw edr::EventException("Too many PATH records in " + GetAction() + " event");
  }
  slot = std::move(record);
}

void FileEvent::Validate() {
  SyscallEvent::Validate();
  if (!records_->object) throw edr::EventException("Missing/incorrect PATH records in file event");
  SettleRecords();
  ResolveFile();
  if (Refusal() != nullptr) return;
  const PathRecord& object = *records_->object;
  object_type_ = object.is_file ? edr::ObjectType::File : edr::ObjectType::Directory;
  is_symlink_ = object.is_symlink;
  object_word_ = object.type_word;
  records_.reset();
}

void FileEvent::ResolveFile() {
  const NameStart start = StartOf(DirectoryArgumentOf(Syscall()));
  const PathRecord& object = *records_->object;
  if (records_->parent) {
    const PathRecord& record = *records_->parent;
    const std::string folder = start.FolderOf(record, object);
    file_ = ImageOf(object, start.ResolveIn(folder, record, object));
    parent_device_ = record.device;
    parent_inode_ = record.inode;
    return;
  }
  file_ = ImageOf(object, start.ResolveAlone(object));
  struct stat parent {};
  if (stat(FolderPart(file_->GetPath()).c_str(), &parent) != 0) {
    Refuse("Failed to get parent inode/deviceid for " + GetAction() + " event");
    return;
  }
  parent_device_ = common::util::DeviceText(parent.st_dev);
  parent_inode_ = parent.st_ino;
}

NameStart FileEvent::StartOf(std::optional<std::size_t> directory_argument) const {
  NameStart start{cwd_, GetActorProcessId(), std::nullopt};
  if (directory_argument && HasArgument(*directory_argument)) {
    // AT_FDCWD is negative, and no descriptor is.
    const auto fd = static_cast<std::int32_t>(Argument(*directory_argument));
    if (fd >= 0) start.fd = fd;
  }
  return start;
}

common::ImageInfo FileEvent::ImageOf(const PathRecord& record, const std::string& path) {
  return {record.device,
          record.permission,
          record.inode,
          path,
          record.group_id,
          common::GroupName(record.group_id),
          common::UserName(record.owner_id),
          record.owner_id,
          ""};
}

std::optional<struct stat> FileEvent::LstatPath(const std::string& path) {
  struct stat result {};
  if (lstat(path.c_str(), &result) == 0) return result;
  const int error = errno;
  ZLOG_DEBUG("Failed to lstat " << path << " (" << common::util::ErrnoText(error) << ")");
  return std::nullopt;
}

bool FileEvent::IsFile(const struct stat& result) const {
  return result.st_ino == file_->GetInode() && common::util::DeviceText(result.st_dev) == file_->GetDevice();
}

std::string FileEvent::DiffersText() const {
  return "File " + file_->GetPath() + " differs from the object of the audit event with ID " + std::to_string(GetId());
}

void FileEvent::Stat(bool follow) {
  std::optional<struct stat> result = LstatPath(file_->GetPath());
  if (!result) return;
  if (S_ISLNK(result->st_mode) && follow) {
    const std::unique_ptr<char, Free> target(canonicalize_file_name(file_->GetPath().c_str()));
    if (!target) {
      const int error = errno;
      throw edr::EventException("Failed to resolve link " + file_->GetPath() + " (" + common::util::ErrnoText(error) +
                                ")");
    }
    file_->SetPath(target.get());
    if (stat(target.get(), &*result) != 0) {
      const int error = errno;
      ZLOG_DEBUG("Failed to stat " << file_->GetPath() << " (" << common::util::ErrnoText(error) << ")");
      return;
    }
  }
  if (!IsFile(*result)) throw edr::EventException(DiffersText());
  state_.emplace(*result);
}

}  // namespace zagent::audit::internal
