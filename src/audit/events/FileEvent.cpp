#include "src/audit/events/FileEvent.h"

#include <cerrno>
#include <cstdlib>
#include <string_view>
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

std::optional<PathRecord> FileEvent::BuildPath(const edr::RecordFields& fields) const {
  static constexpr std::string_view kSelf = "/proc/self/";
  try {
    PathRecord record(fields);
    // The caller meant itself.
    if (record.path.starts_with(kSelf)) {
      record.path.replace(0, kSelf.size(), "/proc/" + std::to_string(GetActorProcessId()) + "/");
    }
    return record;
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
  std::optional<PathRecord> record = BuildPath(fields);
  if (!record) return TypeWord::None;
  const TypeWord word = record->type_word;
  TakePath(std::move(*record), fields);
  return word;
}

void FileEvent::TakePath(PathRecord record, const edr::RecordFields& fields) {
  switch (record.type_word) {
    case TypeWord::None:
      return ParseItemPath(std::move(record));
    case TypeWord::Parent:
      return HoldOrCombine(records_->parent, std::move(record));
    case TypeWord::Unknown:
      ZLOG_TRACE("Unsupported PATH record in Create event of type: " << TypeWordTextOf(fields));
      return;
    default:
      MergeObject(std::move(record));
  }
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
  const PathFinder finder = Finder();
  const PathFinder::Start start = StartOf(DirectoryArgumentOf(Syscall()));
  const PathRecord& object = *records_->object;
  std::optional<std::string> path;
  if (records_->parent) {
    const PathRecord& parent = *records_->parent;
    if (const auto folder = finder.FolderOf(parent, object, start)) path = finder.ResolveIn(*folder, parent, object);
    parent_device_ = parent.device;
    parent_inode_ = parent.inode;
  } else {
    path = finder.ResolveAlone(object, start, ObjectDescriptor());
  }
  if (!path) {
    RefuseUnplaced();
    return;
  }
  file_ = ImageOf(object, *path);
  if (!records_->parent) FindParent();
}

// What is known of the folder spares a look at it, and outlasts it.
void FileEvent::FindParent() {
  const std::string folder = FolderPart(file_->GetPath());
  FolderIdentities* folders = Services().folders.get();
  std::optional<FileIdentity> parent = folders != nullptr ? folders->FolderAt(folder) : std::nullopt;
  struct stat found {};
  if (!parent && stat(folder.c_str(), &found) == 0) {
    parent = FileIdentity::Of(found);
    const auto mount = Services().mounts ? Services().mounts->Find(folder) : std::nullopt;
    if (mount) parent->device = mount->device;
    // A path through a link is one of several.
    if (folders != nullptr && lstat(folder.c_str(), &found) == 0 && S_ISDIR(found.st_mode)) {
      folders->Learn(*parent, folder);
    }
  }
  if (!parent) {
    Refuse("Failed to get parent inode/deviceid for " + GetAction() + " event");
    return;
  }
  parent_device_ = common::util::DeviceText(parent->device);
  parent_inode_ = parent->inode;
}

std::optional<std::int32_t> FileEvent::ObjectDescriptor() const {
  constexpr std::uint32_t kOpenByHandleAt = 304;
  if (Syscall() == kOpenByHandleAt) return ExitValue();
  if (!TakesObjectDescriptor(Syscall()) || !HasArgument(0)) return std::nullopt;
  return static_cast<std::int32_t>(Argument(0));
}

const FileContext& FileEvent::Services() const {
  static const FileContext kNone;
  return context_ ? *context_ : kNone;
}

void FileEvent::RefuseUnplaced() {
  Refuse("No trusted path for " + GetAction() + " event with ID " + std::to_string(GetId()), Loss::Unplaced);
}

void FileEvent::LoseObject(const std::string& text) const {
  if (!Services().extended_coverage) throw edr::EventException(text);
  ZLOG_DEBUG(text);
}

void FileEvent::LearnFolder() const {
  const std::string& path = file_->GetPath();
  // A folder that could not be found is called by its inode, which is no name.
  const bool is_named = !path.ends_with("/inode:" + std::to_string(file_->GetInode()));
  if (Services().folders && IsSuccessful() && is_named) Services().folders->Learn(Identity(), path);
}

void FileEvent::ForgetFolder() const {
  if (Services().folders && IsSuccessful()) Services().folders->Remove(Identity());
}

PathFinder::Start FileEvent::StartOf(std::optional<std::size_t> directory_argument) const {
  if (!directory_argument || !HasArgument(*directory_argument)) return std::nullopt;
  // AT_FDCWD is negative, and no descriptor is.
  const auto fd = static_cast<std::int32_t>(Argument(*directory_argument));
  return fd >= 0 ? PathFinder::Start(fd) : std::nullopt;
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
  return IsSame(result, file_->GetPath(), Identity(), Services().mounts.get());
}

void FileEvent::KeepState(const struct stat& result) {
  state_.emplace(result);
  // Later looks at the file meet the device that a stat tells, where that is not the record's.
  if (result.st_dev != DeviceNumberOf(file_->GetDevice())) file_->SetDevice(common::util::DeviceText(result.st_dev));
}

std::string FileEvent::DiffersText() const {
  return "File " + file_->GetPath() + " differs from the object of the audit event with ID " + std::to_string(GetId());
}

// False when there is nothing behind the link to look at.
bool FileEvent::FollowLink(struct stat& result) {
  const std::unique_ptr<char, Free> target(canonicalize_file_name(file_->GetPath().c_str()));
  if (!target) {
    const int error = errno;
    LoseObject("Failed to resolve link " + file_->GetPath() + " (" + common::util::ErrnoText(error) + ")");
    return false;
  }
  file_->SetPath(target.get());
  if (stat(target.get(), &result) == 0) return true;
  const int error = errno;
  ZLOG_DEBUG("Failed to stat " << file_->GetPath() << " (" << common::util::ErrnoText(error) << ")");
  return false;
}

void FileEvent::Stat(bool follow) {
  std::optional<struct stat> result = LstatPath(file_->GetPath());
  if (!result) return;
  if (S_ISLNK(result->st_mode) && follow && !IsFile(*result) && !FollowLink(*result)) return;
  if (!IsFile(*result)) {
    // What is of another kind was not put in the object's place: the name is not the object's, as with O_TMPFILE.
    const bool is_of_its_kind = S_ISDIR(result->st_mode) == (object_type_ == edr::ObjectType::Directory);
    if (!is_of_its_kind) throw edr::EventException(DiffersText());
    LoseObject(DiffersText());
    return;
  }
  if (S_ISDIR(result->st_mode)) LearnFolder();
  KeepState(*result);
}

}  // namespace zagent::audit::internal
