#include "src/audit/events/Event.h"

#include <stdexcept>

#include "common/src/util/Log.h"
#include "src/audit/events/AuparseRecordSource.h"
#include "src/audit/events/PathResolution.h"

namespace zagent::audit::internal {
namespace {

// A question that this kind of event cannot answer. The texts are known by their irregular wording.
[[noreturn]] void NotImplemented(const char* text) {
  throw std::runtime_error(text);
}

}  // namespace

void Event::Feed(auparse_state_t* state) {
  AuparseRecordSource source(state);
  Feed(source);
}

void Event::Feed(RecordSource& source) {
  {
    // Gone before Validate, which refuses most of what is refused: each frame with something to destroy makes a thrown
    // exception dearer.
    Record record;
    bool more = true;
    while (more) {
      more = source.Next(record);
      id_ = source.Id();
      timestamp_ = source.Timestamp();
      if (more) ParseRecord(record.type, record.fields);
    }
  }
  Validate();
}

void Event::Validate() {
  if (id_ == 0 || timestamp_ == 0) throw edr::EventException("Missing event ID or timestamp");
  ZLOG_DEBUG("Event Action: " << GetAction());
}

std::string Event::ResolvePath(const std::string& cwd, const std::string& parent, const std::string& child) {
  if (child.empty()) throw edr::EventException("Missing path for child");
  if (child.front() == '/') return NormalisePath(child);
  if (!parent.empty()) {
    if (parent.front() == '/') return NormalisePath(parent + "/" + child);
    if (cwd.empty()) throw edr::EventException("Missing CWD with relative paths");
    return NormalisePath(cwd + "/" + parent + "/" + child);
  }
  if (cwd.empty()) throw edr::EventException("Missing CWD with relative path");
  return NormalisePath(cwd + "/" + child);
}

std::unique_ptr<edr::Event> Event::Clone() const {
  NotImplemented("Clone is not implemented");
}
std::uint32_t Event::GetActorEuid() const {
  NotImplemented("GetActorEuid is not implemented");
}
const std::vector<std::string>& Event::GetActorProcessArguments() const {
  NotImplemented("GetActorProcessArguments is not implemented");
}
std::int32_t Event::GetActorProcessId() const {
  NotImplemented("GetActorProcessId is not implemented");
}
std::int32_t Event::GetActorParentProcessId() const {
  NotImplemented("GetActorParentProcessId is not implemented");
}
const std::string& Event::GetActorUserName() const {
  NotImplemented("GetActorUserName is not implemented");
}
std::uint32_t Event::GetActorUserId() const {
  NotImplemented("GetActorUserId is not implemented");
}
const std::string& Event::GetActorLoginName() const {
  NotImplemented("GetActorLoginName is not implemented");
}
std::uint32_t Event::GetActorAuid() const {
  NotImplemented("GetActorAuid is not implemented");
}
const std::string& Event::GetCommandLine() const {
  NotImplemented("GetCommandLine not implemented");
}
const common::ImageInfo* Event::GetFile() const {
  NotImplemented("GetFile not implemented");
}
std::int64_t Event::GetFileAccessTime() const {
  NotImplemented("GetFileAccessTime is not implemented");
}
std::int64_t Event::GetFileChangeTime() const {
  NotImplemented("GetFileChangeTime is not implemented");
}
const std::vector<unsigned char>& Event::GetFileContent() const {
  NotImplemented("GetFileContent is not implemented");
}
const std::vector<unsigned char>& Event::GetFileContentHash(edr::ContentHash /*kind*/) const {
  NotImplemented("GetFileContentHash is not implemented");
}
std::int64_t Event::GetFileModificationTime() const {
  NotImplemented("GetFileModificationTime is not implemented");
}
std::int64_t Event::GetFileSize() const {
  NotImplemented("GetFileSize is not implemented");
}
edr::FileType Event::GetFileType() const {
  NotImplemented("GetFileType is not implemented");
}
const std::string& Event::GetFileTypeDesc() const {
  NotImplemented("GetFileTypeDesc is not implemented");
}
const common::ImageInfo* Event::GetImage() const {
  NotImplemented("GetImage not implemented");
}
const common::ImageInfo* Event::GetNewFile() const {
  NotImplemented("GetNewFile not implemented");
}
std::uint64_t Event::GetParentInode() const {
  NotImplemented("GetParentInode is not implemented");
}
const std::string& Event::GetParentDeviceID() const {
  NotImplemented("GetParentDeviceID is not implemented");
}
const std::string& Event::GetCwd() const {
  NotImplemented("GetCwd is not implemented");
}
const common::ImageInfo* Event::GetSecondaryImage() const {
  NotImplemented("GetSecondaryImage not implemented");
}
const std::string& Event::GetNetworkAddress() const {
  NotImplemented("GetNetworkAddress is not implemented");
}
std::uint32_t Event::GetNetworkPort() const {
  NotImplemented("GetNetworkPort is not implemented");
}
const std::string& Event::GetFileReadStatus() const {
  NotImplemented("GetFileReadStatus is not implemented");
}
bool Event::IsSymlink() const {
  NotImplemented("IsSymlink is not implemented");
}
bool Event::IsElevated() const {
  NotImplemented("IsElevated is not implemented");
}
void Event::Refresh() {
  NotImplemented("Refresh is not implemented");
}
void Event::UpdateActorProcessId(std::int32_t /*pid*/) {
  NotImplemented("UpdateActorProcessId is not implemented");
}

}  // namespace zagent::audit::internal
