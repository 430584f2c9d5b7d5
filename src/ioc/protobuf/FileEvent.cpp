#include "src/ioc/protobuf/FileEvent.h"

#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "common/src/util/Digest.h"
#include "common/src/util/Log.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/protobuf/BatchItem.h"
#include "src/ioc/protobuf/EventActions.h"
#include "src/ioc/protobuf/Exception.h"
#include "src/ioc/protobuf/FileTimes.h"
#include "src/ioc/protobuf/Messages.h"
#include "src/ioc/protobuf/UniqueId.h"

namespace zagent::ioc::internal::protobuf {
namespace {

namespace wire = com::ostrel::ioc::model::proto::event;

using edr::EventType;
using Table = ReportedObjects::Table;

bool IsRegular(const edr::Event& event) {
  try {
    return event.GetFileType() == edr::FileType::Regular;
  } catch (const std::runtime_error&) {
    return false;  // a kind of file that has no word
  }
}

// Whether the path leads to another file by now. What is gone is not, and neither is what nobody can tell apart; a file
// system may tell the device in two ways.
bool IsReplaced(const common::ImageInfo& file, const std::optional<FoundObject>& found) {
  return !file.GetDevice().empty() && found && found->inode != file.GetInode();
}

bool IsTheFile(const FoundObject& found, const common::ImageInfo& file) {
  return S_ISREG(found.mode) && found.inode == file.GetInode() && found.device == file.GetDevice();
}

std::string HexOf(const std::vector<unsigned char>& digest) {
  return common::util::ToHex({reinterpret_cast<const char*>(digest.data()), digest.size()});
}

// A link may lead to a large one.
bool IsSmall(const std::optional<FoundObject>& found) {
  return found && S_ISREG(found->mode) && found->size <= edr::DigestPace::kMaxFreeSize;
}

}  // namespace

FileEvent::FileEvent(const TtlProcessTree& tree, const ReportedObjects& reported, const DirectoryEvent& directories,
                     edr::DigestPace& pace, const common::util::DigestCache& digests, const common::util::Clock& clock)
    : tree_(tree),
      reported_(reported),
      directories_(directories),
      pace_(pace),
      digests_(digests),
      clock_(clock),
      looks_(clock),
      message_(std::make_unique<Message>()) {}

FileEvent::~FileEvent() = default;

void FileEvent::Forget() {
  looks_.Forget();
  paths_.Forget();
  actors_.Forget();
}

Report FileEvent::Build(const edr::Event& event) const {
  const bool is_rename = event.GetType() == EventType::Rename;
  const bool has_new = is_rename || event.GetType() == EventType::AttributeChange;
  const common::ImageInfo* file = has_new ? event.GetNewFile() : event.GetFile();
  static const std::string kNone;
  const std::string& path = file == nullptr ? kNone : file->GetPath();
  if (path.empty()) throw Exception("Failed to read file information: " + path);
  LogGenerating(event, path);
  const auto& [id, parent, parent_id, path_fields] = paths_.Of(path);
  if (parent.empty()) throw Exception("Failed to generate directory ID for: " + path);
  ZLOG_DEBUG("File Parent Directory id: " << parent_id);

  const bool is_gone = event.GetType() == EventType::Delete;
  if (is_gone && !IsReported(id, path)) throw Exception("Dropping delete event for unreported file: " + path);
  Report report;
  if (!is_gone && event.GetFileSize() < 0) {
    ZLOG_DEBUG("Dropping " << event.GetAction() << " for short-lived file " << path);
    return report;
  }

  Message& message = *message_;
  message.Clear();
  message.set_eventaction(ActionOf(event.GetType()));
  message.set_timestamp(event.GetTimestamp());
  message.set_securitysettings(settings_.Of(*file));
  common::Bytes row;
  if (!directories_.Describe(event, parent, parent_id, report)) {
    ZLOG_DEBUG("Failed to stat parent directory for file " << path);
  }
  if (!is_gone) {
    const ReportedObjects::Times times = SetState(event, *file, message);
    row = ReportedObjects::FileRow(id, parent_id, message.size(), times,
                                   {message.md5(), message.sha1(), message.sha256()});
  }
  std::vector<ReportedObjects::Change> changes;
  changes.reserve(is_rename ? 2 : 1);
  if (is_rename && event.GetFile() != nullptr) {
    const std::string& old_path = event.GetFile()->GetPath();
    SetRepaired(old_path, *message.mutable_oldpath());
    changes.push_back({Table::File, UniquePathId(old_path), {}, old_path});
  }
  changes.push_back({Table::File, id, std::move(row), path});
  report.items.push_back(
      {MakeItem(Kind::File, message, {actors_.FieldOf(tree_, event), path_fields}), std::move(changes)});
  return report;
}

// All that is told of a file that is there.
ReportedObjects::Times FileEvent::SetState(const edr::Event& event, const common::ImageInfo& file,
                                           Message& message) const {
  const std::string& path = file.GetPath();
  if (event.GetFileSize() > kMaxSize) ZLOG_WARNING("File size being truncated for file " << path);
  message.set_size(std::min(event.GetFileSize(), kMaxSize));
  const bool is_regular = IsRegular(event);
  ReportedObjects::Times times;
  if (const FileLooks::Look* const look = is_regular ? FindKnown(event, file, path) : nullptr) {
    times = TimesOf(event, file, look->found);
    if (!look->type.empty()) message.set_type(look->type);
    SetDigests(*look, path, message);
  } else {
    // Before the look: the description is made of whatever the path leads to.
    const std::string type = is_regular ? types_.Identify(event.GetFileTypeDesc()) : "";
    const std::optional<FoundObject> found = LookAt(path);
    times = TimesOf(event, file, found);
    if (!type.empty() && !IsReplaced(file, found)) message.set_type(type);
    if (is_regular && (IsSmall(found) || pace_.Admits(path))) SetDigests(event, path, message);
  }
  SetTimes(times, message);
  return times;
}

// What is kept of the state in which the event knows the file, or else in which the file is.
const FileLooks::Look* FileEvent::FindKnown(const edr::Event& event, const common::ImageInfo& file,
                                            const std::string& path) const {
  const FileLooks::Look* const seen = looks_.Find(path, event.GetFileState());
  if (seen != nullptr && IsTheFile(seen->found, file)) return seen;
  const common::util::Clock::SteadyTime time = clock_.SteadyNow();
  const std::optional<FoundObject> found = LookAt(path);
  if (!found || !IsTheFile(*found, file)) return nullptr;
  const std::string description = digests_.FindType(found->state);
  const common::util::FileDigests digests = digests_.Find(found->state);
  if (description.empty() || digests.sha256.empty() || digests.sha1.empty() || digests.md5.empty()) return nullptr;
  return &looks_.Keep(
      path, time,
      {*found, types_.Identify(description), HexOf(digests.sha256), HexOf(digests.sha1), HexOf(digests.md5)});
}

void FileEvent::SetDigests(const FileLooks::Look& look, const std::string& path, Message& message) {
  message.set_sha256(look.sha256);
  message.set_sha1(look.sha1);
  message.set_md5(look.md5);
  ZLOG_DEBUG("sha256: " << look.sha256 << " File: " << Repaired(path));
  ZLOG_DEBUG("sha1: " << look.sha1 << " File: " << Repaired(path));
  ZLOG_DEBUG("md5: " << look.md5 << " File: " << Repaired(path));
}

void FileEvent::SetDigests(const edr::Event& event, const std::string& path, Message& message) {
  struct Hash {
    edr::ContentHash kind;
    const char* name;
    std::size_t size;
    std::string* (Message::*digest)();
  };
  static constexpr Hash kHashes[] = {{edr::ContentHash::Sha256, "sha256: ", 32, &Message::mutable_sha256},
                                     {edr::ContentHash::Sha1, "sha1: ", 20, &Message::mutable_sha1},
                                     {edr::ContentHash::Md5, "md5: ", 16, &Message::mutable_md5}};
  for (const Hash& hash : kHashes) {
    const std::vector<unsigned char>& bytes = event.GetFileContentHash(hash.kind);
    if (bytes.size() != hash.size) {
      ZLOG_DEBUG("Ignoring content hash for event with ID " << event.GetId());
      continue;
    }
    std::string& digest = *(message.*hash.digest)();
    common::util::AppendHex({reinterpret_cast<const char*>(bytes.data()), bytes.size()}, digest);
    ZLOG_DEBUG(hash.name << digest << " File: " << Repaired(path));
  }
}

bool FileEvent::IsReported(const std::string& id, const std::string& path) const {
  try {
    return reported_.Has(Table::File, id);
  } catch (const common::StorageException& error) {
    ZLOG_ERROR("Failed to read file entry from snapshot DB for " << path << ": " << error.what());
    return false;
  }
}

}  // namespace zagent::ioc::internal::protobuf
