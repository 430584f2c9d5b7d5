#include "src/audit/events/RenameEvent.h"

#include <utility>

#include "common/src/util/DeviceText.h"
#include "common/src/util/Log.h"
#include "src/audit/events/PathResolution.h"

namespace zagent::audit::internal {
namespace {

constexpr std::uint32_t kRename = 82;
constexpr std::uint32_t kRenameAt = 264;
constexpr std::uint32_t kRenameAt2 = 316;

// Which argument of the call is the descriptor that a relative new name starts from.
std::optional<std::size_t> NewDirectoryArgumentOf(std::uint32_t syscall) {
  return syscall == kRename ? std::nullopt : std::optional<std::size_t>(2);
}

// How well the name of `parent` is the folder part of the object's name.
int NamesFolderOf(const std::string& cwd, const PathRecord& parent, const PathRecord& object) {
  const std::string folder = FolderText(object.path);
  // The kernel repeats the text of the call, or names the working folder when the call gave no folder.
  if (parent.path == (folder.empty() ? cwd : folder)) return 2;
  // "x/." is x itself, with or without a slash at its end.
  const auto absolute = [&cwd](const std::string& path) {
    return NormalisePath((path.starts_with('/') ? path : cwd + "/" + path) + "/.");
  };
  return absolute(parent.path) == absolute(folder) ? 1 : 0;
}

}  // namespace

RenameEvent::RenameEvent(auparse_state_t* state, std::shared_ptr<edr::LibMagicWrapper> lib_magic,
                         std::unique_ptr<DeleteEvent>* replaced)
    : FileEvent(std::move(lib_magic)) {
  Feed(state);
  SplitReplaced(replaced);
}

RenameEvent::RenameEvent(RecordSource& source, std::shared_ptr<edr::LibMagicWrapper> lib_magic,
                         std::unique_ptr<DeleteEvent>* replaced)
    : FileEvent(std::move(lib_magic)) {
  Feed(source);
  SplitReplaced(replaced);
}

std::unique_ptr<edr::Event> RenameEvent::Clone() const {
  return std::unique_ptr<edr::Event>(new RenameEvent(*this));
}

std::uint64_t RenameEvent::GetParentInode() const {
  if (parent_inode_ == 0) throw edr::EventException("Failed to get parent inode for " + GetAction() + " event");
  return parent_inode_;
}

const std::string& RenameEvent::GetParentDeviceID() const {
  if (parent_device_.empty()) {
    throw edr::EventException("Failed to get parent device ID for " + GetAction() + " event");
  }
  return parent_device_;
}

void RenameEvent::ParseRecord(int type, const edr::RecordFields& fields) {
  if (type != record_type::kPath) {
    FileEvent::ParseRecord(type, fields);
    return;
  }
  // Two parents, the source, perhaps a replaced target, the destination.
  switch (paths_seen_) {
    case 0:
      ParsePath(fields);
      paths_seen_ = 1;
      break;
    case 1:
      ParseDestination(fields);
      paths_seen_ = 2;
      break;
    case 2: {
      const std::string word = ParsePath(fields);
      if (word.empty() || word == "DELETE") paths_seen_ = 3;
      break;
    }
    default:
      ParseDestination(fields);
  }
}

void RenameEvent::ParseDestination(const edr::RecordFields& fields) {
  std::optional<PathRecord> record = BuildPath(fields, new_parent_record_);
  if (!record) return;
  if (record->type_word.empty()) {
    HoldItemDestination(std::move(*record));
  } else {
    HoldTypedDestination(std::move(*record));
  }
}

void RenameEvent::HoldTypedDestination(PathRecord record) {
  if (record.type_word == "PARENT") {
    HoldOrCombine(new_parent_record_, std::move(record));
  } else if (record.type_word == "CREATE") {
    HoldOrCombine(new_record_, std::move(record));
  } else if (record.type_word == "DELETE") {
    HoldOrCombine(replaced_record_, std::move(record));
  } else {
    ZLOG_TRACE("Unsupported PATH record in Rename event of type: " << record.type_word);
  }
}

void RenameEvent::HoldItemDestination(PathRecord record) {
  const std::uint64_t items = AnnouncedItems();
  if (record.item == 1) {
    HoldOrCombine(new_parent_record_, std::move(record));
  } else if (items == 5 && record.item == 3) {
    HoldOrCombine(replaced_record_, std::move(record));
  } else if (record.item + 1 == items) {
    HoldOrCombine(new_record_, std::move(record));
  } else {
    throw edr::EventException("Too many PATH records in Rename event");
  }
}

// The kernel has changed the order of the two PARENT records: their place says less than their names.
void RenameEvent::SettleRecords() {
  if (!parent_record_ || !new_parent_record_ || !new_record_) return;
  if (ParentsAreCrossed()) std::swap(parent_record_, new_parent_record_);
}

bool RenameEvent::ParentsAreCrossed() const {
  const PathRecord& first = *parent_record_;
  const PathRecord& second = *new_parent_record_;
  const auto names = [this](const PathRecord& parent, const PathRecord& object) {
    return NamesFolderOf(WorkingDirectory(), parent, object);
  };
  const int straight = names(first, *object_record_) + names(second, *new_record_);
  const int crossed = names(first, *new_record_) + names(second, *object_record_);
  if (straight != crossed) return crossed > straight;
  if (first.IsSameObject(second)) return false;
  // Two folders under one name: the call started from descriptors. Ask where they lead.
  const std::string source = StartOf(DirectoryArgumentOf(Syscall())).FolderNamedBy(*object_record_);
  const std::string destination = StartOf(NewDirectoryArgumentOf(Syscall())).FolderNamedBy(*new_record_);
  return IsObjectAt(source, second.device, second.inode) || IsObjectAt(destination, first.device, first.inode);
}

void RenameEvent::Validate() {
  FileEvent::Validate();
  if (!TypeWord().empty() && TypeWord() != "DELETE") {
    throw edr::EventException("Missing delete PATH record for Rename event");
  }
  if (!new_record_ || !new_parent_record_) {
    throw edr::EventException("Missing/incorrect destination PATH records in Rename event");
  }
  const PathRecord object = *std::exchange(new_record_, std::nullopt);
  PathRecord parent = *std::exchange(new_parent_record_, std::nullopt);

  const NameStart start = StartOf(NewDirectoryArgumentOf(Syscall()));
  const std::string folder = start.FolderOf(parent, object);
  old_file_.emplace(object.device, file_->GetPermission(), object.inode, file_->GetPath(), file_->GetGroupId(),
                    file_->GetGroupName(), file_->GetOwnerName(), file_->GetOwnerId(), file_->GetText());
  file_ = ImageOf(object, start.ResolveIn(folder, parent, object));
  if (Syscall() != kRename && Syscall() != kRenameAt && Syscall() != kRenameAt2) {
    throw edr::EventException("Invalid syscall for Rename event: " + std::to_string(Syscall()));
  }
  // The replaced file is named as the destination is.
  if (replaced_record_) replaced_record_->path = start.ResolveIn(folder, parent, *replaced_record_);
  parent.path = ResolvePath(WorkingDirectory(), "", folder);
  ConfirmDestination(parent);
  if (stat_ && object.is_file) static_cast<void>(GetFileType());  // refuses what is no file

  object_type_ = object.is_file ? edr::ObjectType::File : edr::ObjectType::Directory;
  is_symlink_ = object.is_symlink;
  parent_device_ = parent.device;
  parent_inode_ = parent.inode;
  if (replaced_record_) replaced_parent_ = std::move(parent);
}

void RenameEvent::ConfirmDestination(const PathRecord& parent) {
  stat_ = LstatPath(file_->GetPath());
  if (stat_ && !IsFile(*stat_)) {
    throw edr::EventException("File " + file_->GetPath() + " differs from the object of the audit event");
  }
  const auto folder = LstatPath(parent.path);
  if (folder && (folder->st_ino != parent.inode || common::util::DeviceText(folder->st_dev) != parent.device)) {
    throw edr::EventException("Directory " + parent.path + " differs from the PARENT object of the audit event");
  }
}

void RenameEvent::SplitReplaced(std::unique_ptr<DeleteEvent>* replaced) {
  auto object = std::exchange(replaced_record_, std::nullopt);
  auto parent = std::exchange(replaced_parent_, std::nullopt);
  if (!object || !parent || replaced == nullptr) return;
  object->type_word = "DELETE";
  try {
    *replaced = std::make_unique<DeleteEvent>(LibMagic(), std::move(*object), std::move(*parent), *this);
  } catch (const std::exception& error) {
    ZLOG_DEBUG("Failed to build the delete of the file that event " << GetId() << " replaced: " << error.what());
  }
}

}  // namespace zagent::audit::internal
