#include "src/audit/events/FileEvent.h"

#include <cerrno>
#include <string_view>
#include <utility>

#include "common/src/util/DeviceText.h"
#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "src/audit/events/PathResolution.h"

namespace zagent::audit::internal {
namespace {

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
      access_time(result.st_atime),
      modification_time(result.st_mtime),
      file(result) {}

FileEvent::FileEvent(PathRecord object, PathRecord parent, const FileEvent& rename)
    : SyscallEvent(rename),
      context_(rename.context_),
      piece_(rename.piece_),
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
      piece_(other.piece_),
      is_gone_(other.is_gone_),
      has_cwd_(other.has_cwd_),
      cwd_(other.cwd_),
      process_title_(other.process_title_),
      object_word_(other.object_word_),
      on_demand_(other.on_demand_) {}

void FileEvent::ParseRecord(int type, const edr::RecordFields& fields) {
  if (type == record_type::kPath) {
    if (!IsOfLayerBelow(fields)) ParsePath(fields);
  } else if (type == record_type::kProctitle) {
    process_title_ = fields.Find(edr::RecordField::Proctitle);
  } else if (type == record_type::kCwd) {
    if (has_cwd_) {
      throw edr::EventException("Multiple CWD records found in " + GetAction() + " event with ID " +
                                std::to_string(GetId()));
    }
    has_cwd_ = true;
    cwd_ = fields.Find(edr::RecordField::Cwd);
    // "<too_long>": nothing can be told below it.
    if (!cwd_.starts_with('/')) cwd_.clear();
  } else {
    SyscallEvent::ParseRecord(type, fields);
  }
}

bool FileEvent::IsOfLayerBelow(const edr::RecordFields& fields) {
  const std::string_view device = fields.Find(edr::RecordField::Dev);
  if (!records_ || device.empty()) return false;
  if (records_->device.empty()) records_->device = device;
  return device != records_->device && fields.Find(edr::RecordField::Name).empty();
}

std::optional<PathRecord> FileEvent::BuildPath(const edr::RecordFields& fields) const {
  try {
    PathRecord record(fields);
    record.path = WithCaller(std::move(record.path), GetActorProcessId());
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
  if (!records_) throw edr::EventException("Too many PATH records in " + GetAction() + " event");
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
  if (!records_ || !records_->object) {
    throw edr::EventException("Missing/incorrect PATH records in file event");
  }
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
  file_ = ImageOf(object, std::move(*path));
  if (!records_->parent) FindParent();
}

// With the device of the mount that holds it, as a record would have it.
FileIdentity FileEvent::IdentityAt(const std::string& folder, const struct stat& found) const {
  FileIdentity identity = FileIdentity::Of(found);
  if (!Services().mounts) return identity;
  auto mount = Services().mounts->Find(folder);
  if (mount && mount->device != identity.device) {  // another file system's view, or the way leads through a link
    const std::optional<std::string> canonical = CanonicalPath(folder);
    mount = canonical ? Services().mounts->Find(*canonical) : std::nullopt;
  }
  if (mount) identity.device = mount->device;
  return identity;
}

std::optional<FileIdentity> FileEvent::LookAt(const std::string& folder) const {
  DiskLooks* looks = Services().looks.get();
  if (looks != nullptr) {
    if (const auto* known = looks->folders.Find(folder)) return *known;
  }
  struct stat found {};
  std::optional<FileIdentity> look;
  if (stat(folder.c_str(), &found) == 0) look = IdentityAt(folder, found);
  return looks != nullptr ? looks->folders.Keep(folder, look) : look;
}

// What is known of the folder outlasts it.
void FileEvent::FindParent() {
  const std::string folder = FolderPart(file_->GetPath());
  FolderIdentities* folders = Services().folders.get();
  const std::optional<FileIdentity> known = folders != nullptr ? folders->FolderAt(folder) : std::nullopt;
  std::optional<FileIdentity> parent = LookAt(folder);
  if (!parent) {
    parent = known;
  } else if (known != parent) {
    Finder().Remember(folder, *parent);
  }
  if (!parent) {
    // What a process had open when it ended lies where the rule says that the kernel names.
    if (IsDescriptorPath(file_->GetPath())) return;
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
  // A folder that went where nobody knows is not at its old place.
  if (records_ && records_->object && !records_->object->is_file) ForgetFolder(records_->object->Identity());
  Refuse("No trusted path for " + GetAction() + " event with ID " + std::to_string(GetId()), Loss::Unplaced);
}

void FileEvent::LoseObject(const std::string& text) const {
  if (!Services().extended_coverage) throw edr::EventException(text);
  ZLOG_DEBUG(text);
}

void FileEvent::LearnFolder() const {
  if (!Services().folders || !IsSuccessful()) return;
  FolderIdentities& folders = *Services().folders;
  const std::string& path = file_->GetPath();
  const std::string name = path.substr(path.rfind('/') + 1);
  // A folder that could not be found is called by its inode, which is no name.
  if (name == "inode:" + std::to_string(file_->GetInode())) return;
  // The way there may have led through a link.
  const auto parent = folders.PathOf({DeviceNumberOf(parent_device_), parent_inode_});
  if (parent) {
    folders.Learn(Identity(), *parent == "/" ? *parent + name : *parent + "/" + name);
  } else if (IsCanonical(path)) {
    folders.Learn(Identity(), path);
  }
}

void FileEvent::ForgetFolder(const FileIdentity& folder) const {
  if (Services().folders && IsSuccessful()) Services().folders->Remove(folder);
}

PathFinder::Start FileEvent::StartOf(std::optional<std::size_t> directory_argument) const {
  if (!directory_argument || !HasArgument(*directory_argument)) return std::nullopt;
  // AT_FDCWD is negative, and no descriptor is.
  const auto fd = static_cast<std::int32_t>(Argument(*directory_argument));
  return fd >= 0 ? PathFinder::Start(fd) : std::nullopt;
}

std::optional<struct stat> FileEvent::LstatPath(const std::string& path) const {
  DiskLooks* looks = Services().looks.get();
  if (looks != nullptr) {
    if (const auto* known = looks->objects.Find(path)) return *known;
    if (looks->LacksFolderOf(path)) return std::nullopt;
  }
  struct stat result {};
  std::optional<struct stat> look;
  if (lstat(path.c_str(), &result) == 0) {
    look = result;
  } else {
    const int error = errno;
    ZLOG_DEBUG("Failed to lstat " << path << " (" << common::util::ErrnoText(error) << ")");
  }
  return looks != nullptr ? looks->objects.Keep(path, look) : look;
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
  const std::optional<std::string> target = CanonicalPath(file_->GetPath());
  if (!target) {
    const int error = errno;
    LoseObject("Failed to resolve link " + file_->GetPath() + " (" + common::util::ErrnoText(error) + ")");
    return false;
  }
  if (stat(target->c_str(), &result) != 0) {
    const int error = errno;
    ZLOG_DEBUG("Failed to stat " << *target << " (" << common::util::ErrnoText(error) << ")");
    return false;
  }
  // A link that leads elsewhere meanwhile is not followed.
  if (IsSame(result, *target, Identity(), Services().mounts.get())) file_->SetPath(*target);
  return true;
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
