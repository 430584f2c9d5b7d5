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

RenameEvent::RenameEvent(RecordSource& source, Context context, std::unique_ptr<DeleteEvent>* replaced)
    : FileEvent(std::move(context)), destination_(std::make_unique<Destination>()) {
  Feed(source, kRecords);
  SplitReplaced(replaced);
  destination_.reset();
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
  if (!destination_) throw edr::EventException("Too many PATH records in Rename event");
  if (IsOfLayerBelow(fields)) return;
  if (fields.Find(edr::RecordField::Name).empty() && !TypeWordTextOf(fields).empty()) {
    if (std::optional<PathRecord> record = BuildPath(fields)) ParseUnnamed(std::move(*record));
    return;
  }
  // Two parents, the source, perhaps a replaced target, the destination.
  unsigned& paths_seen = destination_->paths_seen;
  switch (paths_seen) {
    case 0:
      ParsePath(fields);
      paths_seen = 1;
      break;
    case 1:
      ParseDestination(fields);
      paths_seen = 2;
      break;
    case 2: {
      const TypeWord word = ParsePath(fields);
      if (word == TypeWord::None || word == TypeWord::Delete) paths_seen = 3;
      break;
    }
    default:
      ParseDestination(fields);
  }
}

// The kernel loses the name of an object that was written with a slash behind it, and all names of an operation through
// io_uring. Then the folder of each comes right before it.
void RenameEvent::ParseUnnamed(PathRecord record) {
  Destination& destination = *destination_;
  switch (record.type_word) {
    case TypeWord::Parent:
      destination.last_folder = std::move(record);
      break;
    case TypeWord::Delete:
      if (!PathRecords().object) {
        PathRecords().object = std::move(record);
        destination.source_folder = destination.last_folder;
        destination.paths_seen = 3;
      } else {
        HoldOrCombine(destination.replaced, std::move(record));
      }
      break;
    case TypeWord::Create:
      TakeDestination(std::move(record), destination.object);
      destination.own_folder = destination.last_folder;
      break;
    default:
      break;
  }
}

void RenameEvent::ParseDestination(const edr::RecordFields& fields) {
  std::optional<PathRecord> record = BuildPath(fields);
  if (!record) return;
  if (record->type_word == TypeWord::None) {
    HoldItemDestination(std::move(*record));
  } else if (std::optional<PathRecord>* slot = destination_->SlotOf(record->type_word)) {
    TakeDestination(std::move(*record), *slot);
  } else {
    ZLOG_TRACE("Unsupported PATH record in Rename event of type: " << TypeWordTextOf(fields));
  }
}

void RenameEvent::TakeDestination(PathRecord record, std::optional<PathRecord>& slot) {
  const Destination& destination = *destination_;
  const bool was_there_before = record.type_word == TypeWord::Create && destination.object && destination.replaced &&
                                record.IsSameObject(*destination.replaced) && !record.IsSameObject(*destination.object);
  HoldOrCombine(was_there_before ? destination_->swapped : slot, std::move(record));
}

std::optional<PathRecord>* RenameEvent::Destination::SlotOf(TypeWord word) {
  switch (word) {
    case TypeWord::Parent:
      return &parent;
    case TypeWord::Create:
      return &object;
    case TypeWord::Delete:
      return &replaced;
    default:
      return nullptr;
  }
}

void RenameEvent::HoldItemDestination(PathRecord record) {
  const std::uint64_t items = AnnouncedItems();
  if (record.item == 1) {
    HoldOrCombine(destination_->parent, std::move(record));
  } else if (items == 5 && record.item == 3) {
    HoldOrCombine(destination_->replaced, std::move(record));
  } else if (record.item + 1 == items) {
    HoldOrCombine(destination_->object, std::move(record));
  } else {
    throw edr::EventException("Too many PATH records in Rename event");
  }
}

// The kernel has changed the order of the two PARENT records: their place says less than their names.
void RenameEvent::SettleRecords() {
  std::optional<PathRecord>& source = PathRecords().parent;
  if (destination_->source_folder || destination_->own_folder) {
    SettleUnnamed();
  } else if (source && destination_->parent && destination_->object && ParentsAreCrossed()) {
    std::swap(source, destination_->parent);
  }
}

// Each folder that came right before its object is one of the two named ones, if these were told.
void RenameEvent::SettleUnnamed() {
  std::optional<PathRecord>& first = PathRecords().parent;
  std::optional<PathRecord>& second = destination_->parent;
  const std::optional<PathRecord>& source = destination_->source_folder;
  const std::optional<PathRecord>& own = destination_->own_folder;
  const auto named = [&](const PathRecord& folder) {
    if (first && first->IsSameObject(folder)) return *first;
    return second && second->IsSameObject(folder) ? *second : folder;
  };
  const auto the_other_than = [&](const PathRecord& folder) {
    return first && first->IsSameObject(folder) && second ? second : first;
  };
  const std::optional<PathRecord> source_folder = source ? named(*source) : the_other_than(*own);
  const std::optional<PathRecord> own_folder = own ? named(*own) : the_other_than(*source);
  first = source_folder;
  second = own_folder;
}

bool RenameEvent::ParentsAreCrossed() {
  const PathRecord& first = *PathRecords().parent;
  const PathRecord& second = *destination_->parent;
  const PathRecord& source_object = *PathRecords().object;
  const PathRecord& new_object = *destination_->object;
  const auto names = [this](const PathRecord& parent, const PathRecord& object) {
    return NamesFolderOf(WorkingDirectory(), parent, object);
  };
  const int straight = names(first, source_object) + names(second, new_object);
  const int crossed = names(first, new_object) + names(second, source_object);
  if (straight != crossed) return crossed > straight;
  if (first.IsSameObject(second)) return false;
  // Two folders under one name: the call started from descriptors. Ask where they lead.
  const PathFinder finder = Finder();
  const PathFinder::Start source = StartOf(DirectoryArgumentOf(Syscall()));
  const PathFinder::Start destination = StartOf(NewDirectoryArgumentOf(Syscall()));
  return finder.IsAt(finder.FolderNamedBy(source_object, source), second) ||
         finder.IsAt(finder.FolderNamedBy(new_object, destination), first);
}

void RenameEvent::Validate() {
  try {
    Settle();
  } catch (const edr::EventException&) {
    LoseFolder();
    throw;
  }
  if (Refusal() != nullptr) LoseFolder();
}

// A folder that went where nobody knows is not at its old place.
void RenameEvent::LoseFolder() const {
  if (!destination_ || destination_->folders_told) return;
  for (const std::optional<PathRecord>* record : {&destination_->object, &destination_->replaced}) {
    if (*record && !(*record)->is_file) ForgetFolder((*record)->Identity());
  }
  if (file_ && object_type_ == edr::ObjectType::Directory) ForgetFolder(Identity());
}

void RenameEvent::Settle() {
  FileEvent::Validate();
  if (Refusal() != nullptr) return;
  if (ObjectWord() != TypeWord::None && ObjectWord() != TypeWord::Delete) {
    throw edr::EventException("Missing delete PATH record for Rename event");
  }
  if (!destination_->object || !destination_->parent) {
    throw edr::EventException("Missing/incorrect destination PATH records in Rename event");
  }
  ResolveDestination();
  if (Refusal() != nullptr) return;
  if (Syscall() != kRename && Syscall() != kRenameAt && Syscall() != kRenameAt2) {
    throw edr::EventException("Invalid syscall for Rename event: " + std::to_string(Syscall()));
  }
  TellFolders();
  if (destination_->swapped) {
    throw edr::EventException("Cannot combine records with missing or different inodes");
  }
  const PathRecord& object = *destination_->object;
  const PathRecord& parent = *destination_->parent;
  ConfirmDestination(parent);
  if (state_ && object.is_file) static_cast<void>(GetFileType());  // refuses what is no file

  object_type_ = object.is_file ? edr::ObjectType::File : edr::ObjectType::Directory;
  is_symlink_ = object.is_symlink;
  old_folder_ = {DeviceNumberOf(parent_device_), parent_inode_};
  parent_device_ = parent.device;
  parent_inode_ = parent.inode;
}

void RenameEvent::ResolveDestination() {
  const PathRecord& object = *destination_->object;
  PathRecord& parent = *destination_->parent;
  const PathFinder finder = Finder();
  const auto folder = finder.FolderOf(parent, object, StartOf(NewDirectoryArgumentOf(Syscall())));
  if (!folder) {
    RefuseUnplaced();
    return;
  }
  old_file_.emplace(object.device, file_->GetPermission(), object.inode, file_->GetPath(), file_->GetGroupId(),
                    file_->GetGroupName(), file_->GetOwnerName(), file_->GetOwnerId(), file_->GetText());
  file_ = ImageOf(object, finder.ResolveIn(*folder, parent, object));
  // The replaced file is named as the destination is.
  if (std::optional<PathRecord>& replaced = destination_->replaced) replaced->path = file_->GetPath();
  parent.path = ResolvePath(WorkingDirectory(), "", *folder);
}

// In the order of the records, whether an event comes of them or not.
void RenameEvent::TellFolders() {
  destination_->folders_told = true;
  if (!Services().folders || !IsSuccessful()) return;
  FolderIdentities& folders = *Services().folders;
  if (destination_->swapped) {
    folders.Exchange(old_file_->GetPath(), file_->GetPath());
    return;
  }
  if (destination_->object->is_file) return;
  if (destination_->replaced) folders.Remove(destination_->replaced->Identity());
  folders.Rename(Identity(), old_file_->GetPath(), file_->GetPath());
}

void RenameEvent::ConfirmDestination(const PathRecord& parent) {
  if (const auto file = LstatPath(file_->GetPath())) {
    if (IsFile(*file)) {
      KeepState(*file);
    } else {
      LoseObject("File " + file_->GetPath() + " differs from the object of the audit event");
    }
  }
  if (LookAt(parent.path) == parent.Identity()) return;
  const auto folder = LstatPath(parent.path);
  if (folder && LeadsTo(parent.path, parent.Identity(), Services().mounts.get()) == Leads::Nowhere) {
    LoseObject("Directory " + parent.path + " differs from the PARENT object of the audit event");
  }
}

void RenameEvent::SplitReplaced(std::unique_ptr<DeleteEvent>* replaced) {
  std::optional<PathRecord>& object = destination_->replaced;
  if (!object || replaced == nullptr || Refusal() != nullptr) return;
  object->type_word = TypeWord::Delete;
  try {
    auto removed = std::make_unique<DeleteEvent>(std::move(*object), std::move(*destination_->parent), *this);
    if (const std::string* refusal = removed->Refusal()) {
      ZLOG_DEBUG("Failed to build the delete of the file that event " << GetId() << " replaced: " << *refusal);
    } else {
      *replaced = std::move(removed);
    }
  } catch (const std::exception& error) {
    ZLOG_DEBUG("Failed to build the delete of the file that event " << GetId() << " replaced: " << error.what());
  }
}

}  // namespace zagent::audit::internal
