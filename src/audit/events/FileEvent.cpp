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

bool IsChangeWord(const std::string& word) {
  return word == "CREATE" || word == "DELETE";
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

FileEvent::FileEvent(std::shared_ptr<edr::LibMagicWrapper> lib_magic, PathRecord object, PathRecord parent,
                     const FileEvent& rename)
    : SyscallEvent(rename),
      object_record_(std::move(object)),
      parent_record_(std::move(parent)),
      lib_magic_(std::move(lib_magic)),
      cwd_(rename.cwd_),
      process_title_(rename.process_title_) {}

void FileEvent::ParseRecord(int type, const edr::RecordFields& fields) {
  const auto text = [&fields](const char* name) {
    const auto field = fields.find(name);
    return field != fields.end() ? field->second : std::string();
  };
  if (type == record_type::kPath) {
    ParsePath(fields);
  } else if (type == record_type::kProctitle) {
    process_title_ = text("proctitle");
  } else if (type == record_type::kCwd) {
    if (has_cwd_) {
      throw edr::EventException("Multiple CWD records found in " + GetAction() + " event with ID " +
                                std::to_string(GetId()));
    }
    has_cwd_ = true;
    cwd_ = text("cwd");
  } else {
    SyscallEvent::ParseRecord(type, fields);
  }
}

std::optional<PathRecord> FileEvent::BuildPath(const edr::RecordFields& fields,
                                               const std::optional<PathRecord>& parent) const {
  try {
    return PathRecord(fields, cwd_, parent ? parent->path : std::string());
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

std::string FileEvent::ParsePath(const edr::RecordFields& fields) {
  std::optional<PathRecord> record = BuildPath(fields, parent_record_);
  if (!record) return {};
  std::string word = record->type_word;
  if (word.empty()) {
    ParseItemPath(std::move(*record));
  } else if (word == "PARENT") {
    HoldOrCombine(parent_record_, std::move(*record));
  } else if (IsChangeWord(word) || word == "NORMAL") {
    MergeObject(std::move(*record));
  } else {
    ZLOG_TRACE("Unsupported PATH record in Create event of type: " << word);
  }
  return word;
}

void FileEvent::MergeObject(PathRecord record) {
  // A call that goes through a symbolic link names the link first.
  if (!object_record_ || object_record_->is_symlink) {
    object_record_ = std::move(record);
    return;
  }
  if (object_record_->type_word == record.type_word) {
    object_record_->Combine(record);
    return;
  }
  const bool held_is_change = IsChangeWord(object_record_->type_word);
  if (!held_is_change && !IsChangeWord(record.type_word)) {
    throw edr::EventException("Cannot combine records of different objtype");
  }
  if (!held_is_change) std::swap(*object_record_, record);
  if (object_record_->IsSameObject(record)) object_record_->Combine(record);
}

void FileEvent::ParseItemPath(PathRecord record) {
  Role role = RoleOf(AnnouncedItems(), record.item);
  if (role == Role::Ignored) return;
  if (role == Role::InOrder) role = parent_record_ ? Role::Object : Role::Parent;
  std::optional<PathRecord>& slot = role == Role::Parent ? parent_record_ : object_record_;
  if (role == Role::None || slot) {
    throw edr::EventException("Too many PATH records in " + GetAction() + " event");
  }
  slot = std::move(record);
}

void FileEvent::Validate() {
  SyscallEvent::Validate();
  if (!object_record_) throw edr::EventException("Missing/incorrect PATH records in file event");
  SettleRecords();
  ResolveFile();
  object_type_ = object_record_->is_file ? edr::ObjectType::File : edr::ObjectType::Directory;
  is_symlink_ = object_record_->is_symlink;
  type_word_ = std::move(object_record_->type_word);
  object_record_.reset();
  parent_record_.reset();
}

void FileEvent::ResolveFile() {
  const NameStart start = StartOf(DirectoryArgumentOf(Syscall()));
  if (parent_record_) {
    const std::string folder = start.FolderOf(*parent_record_, *object_record_);
    file_ = ImageOf(*object_record_, start.ResolveIn(folder, *parent_record_, *object_record_));
    parent_device_ = parent_record_->device;
    parent_inode_ = parent_record_->inode;
    return;
  }
  file_ = ImageOf(*object_record_, start.ResolveAlone(*object_record_));
  struct stat parent {};
  if (stat(FolderPart(file_->GetPath()).c_str(), &parent) != 0) {
    throw edr::EventException("Failed to get parent inode/deviceid for " + GetAction() + " event");
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
  stat_ = result;
}

}  // namespace zagent::audit::internal
