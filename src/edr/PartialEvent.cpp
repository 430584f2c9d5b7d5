#include "src/edr/PartialEvent.h"

#include <stdexcept>

namespace zagent::edr {
namespace {

// A question that this kind of event cannot answer. The texts are known by their irregular wording.
[[noreturn]] void NotImplemented(const char* text) {
  throw std::runtime_error(text);
}

}  // namespace

std::unique_ptr<Event> PartialEvent::Clone() const {
  NotImplemented("Clone is not implemented");
}
std::uint32_t PartialEvent::GetActorEuid() const {
  NotImplemented("GetActorEuid is not implemented");
}
const std::vector<std::string>& PartialEvent::GetActorProcessArguments() const {
  NotImplemented("GetActorProcessArguments is not implemented");
}
std::int32_t PartialEvent::GetActorProcessId() const {
  NotImplemented("GetActorProcessId is not implemented");
}
std::int32_t PartialEvent::GetActorParentProcessId() const {
  NotImplemented("GetActorParentProcessId is not implemented");
}
const std::string& PartialEvent::GetActorUserName() const {
  NotImplemented("GetActorUserName is not implemented");
}
std::uint32_t PartialEvent::GetActorUserId() const {
  NotImplemented("GetActorUserId is not implemented");
}
const std::string& PartialEvent::GetActorLoginName() const {
  NotImplemented("GetActorLoginName is not implemented");
}
std::uint32_t PartialEvent::GetActorAuid() const {
  NotImplemented("GetActorAuid is not implemented");
}
const std::string& PartialEvent::GetCommandLine() const {
  NotImplemented("GetCommandLine not implemented");
}
const common::ImageInfo* PartialEvent::GetFile() const {
  NotImplemented("GetFile not implemented");
}
std::int64_t PartialEvent::GetFileAccessTime() const {
  NotImplemented("GetFileAccessTime is not implemented");
}
std::int64_t PartialEvent::GetFileChangeTime() const {
  NotImplemented("GetFileChangeTime is not implemented");
}
const std::vector<unsigned char>& PartialEvent::GetFileContent() const {
  NotImplemented("GetFileContent is not implemented");
}
const std::vector<unsigned char>& PartialEvent::GetFileContentHash(ContentHash /*kind*/) const {
  NotImplemented("GetFileContentHash is not implemented");
}
std::int64_t PartialEvent::GetFileModificationTime() const {
  NotImplemented("GetFileModificationTime is not implemented");
}
std::int64_t PartialEvent::GetFileSize() const {
  NotImplemented("GetFileSize is not implemented");
}
FileType PartialEvent::GetFileType() const {
  NotImplemented("GetFileType is not implemented");
}
const std::string& PartialEvent::GetFileTypeDesc() const {
  NotImplemented("GetFileTypeDesc is not implemented");
}
const common::ImageInfo* PartialEvent::GetImage() const {
  NotImplemented("GetImage not implemented");
}
const common::ImageInfo* PartialEvent::GetNewFile() const {
  NotImplemented("GetNewFile not implemented");
}
std::uint64_t PartialEvent::GetParentInode() const {
  NotImplemented("GetParentInode is not implemented");
}
const std::string& PartialEvent::GetParentDeviceID() const {
  NotImplemented("GetParentDeviceID is not implemented");
}
const std::string& PartialEvent::GetCwd() const {
  NotImplemented("GetCwd is not implemented");
}
const common::ImageInfo* PartialEvent::GetSecondaryImage() const {
  NotImplemented("GetSecondaryImage not implemented");
}
const std::string& PartialEvent::GetNetworkAddress() const {
  NotImplemented("GetNetworkAddress is not implemented");
}
std::uint32_t PartialEvent::GetNetworkPort() const {
  NotImplemented("GetNetworkPort is not implemented");
}
const std::string& PartialEvent::GetFileReadStatus() const {
  NotImplemented("GetFileReadStatus is not implemented");
}
bool PartialEvent::IsSymlink() const {
  NotImplemented("IsSymlink is not implemented");
}
bool PartialEvent::IsElevated() const {
  NotImplemented("IsElevated is not implemented");
}
void PartialEvent::Refresh() {
  NotImplemented("Refresh is not implemented");
}
void PartialEvent::UpdateActorProcessId(std::int32_t /*pid*/) {
  NotImplemented("UpdateActorProcessId is not implemented");
}

}  // namespace zagent::edr
