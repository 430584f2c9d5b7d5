#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/src/util/FileState.h"
#include "src/edr/Event.h"
#include "src/edr/RecordFields.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::fakes {

// An event whose every answer a test sets. Questions about images that were not set answer nullptr.
class FakeEvent final : public edr::Event {
 public:
  edr::EventType type = edr::EventType::Write;
  std::string action = "Write";
  edr::ObjectType object_type = edr::ObjectType::File;
  std::uint32_t id = 1;
  std::uint32_t uid = 0, euid = 0, auid = 4294967295U;
  std::int32_t pid = 100, ppid = 1;
  std::vector<std::string> arguments;
  std::string user_name = "root", login_name = "system-user", command_line = "cmd", cwd = "/";
  std::optional<common::ImageInfo> file, new_file, image = common::ImageInfo("/bin/actor"), secondary_image;
  std::int64_t access_time = 0, change_time = 0, modification_time = 0, size = -1;
  std::optional<common::util::FileState> state;
  std::int64_t timestamp = 1'700'000'000'000'000'000;
  std::vector<unsigned char> content, content_hash;
  edr::FileType file_type = edr::FileType::Regular;
  std::string file_type_desc, parent_device, network_address, read_status, audit_key;
  std::uint64_t parent_inode = 0;
  std::uint32_t network_port = 0;
  bool symlink = false, successful = true, elevated = false;
  std::string refresh_error;  // Refresh throws EventException with this text when it is not empty
  int refreshed = 0;

  FakeEvent() = default;
  FakeEvent(edr::EventType event_type, std::string action_text, const std::string& path)
      : type(event_type), action(std::move(action_text)), file(common::ImageInfo(path)) {}
  FakeEvent(const FakeEvent&) = default;

  [[nodiscard]] std::unique_ptr<edr::Event> Clone() const override { return std::make_unique<FakeEvent>(*this); }
  [[nodiscard]] edr::EventType GetType() const override { return type; }
  [[nodiscard]] std::string GetAction() const override { return action; }
  [[nodiscard]] std::uint32_t GetId() const override { return id; }
  [[nodiscard]] std::uint32_t GetActorEuid() const override { return euid; }
  [[nodiscard]] const std::vector<std::string>& GetActorProcessArguments() const override { return arguments; }
  [[nodiscard]] std::int32_t GetActorProcessId() const override { return pid; }
  [[nodiscard]] std::int32_t GetActorParentProcessId() const override { return ppid; }
  [[nodiscard]] const std::string& GetActorUserName() const override { return user_name; }
  [[nodiscard]] std::uint32_t GetActorUserId() const override { return uid; }
  [[nodiscard]] const std::string& GetActorLoginName() const override { return login_name; }
  [[nodiscard]] std::uint32_t GetActorAuid() const override { return auid; }
  [[nodiscard]] const std::string& GetCommandLine() const override { return command_line; }
  [[nodiscard]] const common::ImageInfo* GetFile() const override { return Pointer(file); }
  [[nodiscard]] std::int64_t GetFileAccessTime() const override { return access_time; }
  [[nodiscard]] std::int64_t GetFileChangeTime() const override { return change_time; }
  [[nodiscard]] const std::vector<unsigned char>& GetFileContent() const override { return content; }
  [[nodiscard]] const std::vector<unsigned char>& GetFileContentHash(edr::ContentHash) const override {
    return content_hash;
  }
  [[nodiscard]] std::int64_t GetFileModificationTime() const override { return modification_time; }
  [[nodiscard]] std::int64_t GetFileSize() const override { return size; }
  [[nodiscard]] edr::FileType GetFileType() const override { return file_type; }
  [[nodiscard]] const std::string& GetFileTypeDesc() const override { return file_type_desc; }
  [[nodiscard]] const common::ImageInfo* GetImage() const override { return Pointer(image); }
  [[nodiscard]] const common::ImageInfo* GetNewFile() const override { return Pointer(new_file); }
  [[nodiscard]] edr::ObjectType GetObjectType() const override { return object_type; }
  [[nodiscard]] std::uint64_t GetParentInode() const override { return parent_inode; }
  [[nodiscard]] const std::string& GetParentDeviceID() const override { return parent_device; }
  [[nodiscard]] const std::string& GetCwd() const override { return cwd; }
  [[nodiscard]] const common::ImageInfo* GetSecondaryImage() const override { return Pointer(secondary_image); }
  [[nodiscard]] std::int64_t GetTimestamp() const override { return timestamp; }
  [[nodiscard]] const std::string& GetNetworkAddress() const override { return network_address; }
  [[nodiscard]] std::uint32_t GetNetworkPort() const override { return network_port; }
  [[nodiscard]] const std::string& GetFileReadStatus() const override { return read_status; }
  [[nodiscard]] bool HasSecondaryImage() const override { return secondary_image.has_value(); }
  [[nodiscard]] bool IsSymlink() const override { return symlink; }
  [[nodiscard]] bool IsSuccessful() const override { return successful; }
  [[nodiscard]] bool IsElevated() const override { return elevated; }
  void Refresh() override {
    ++refreshed;
    if (!refresh_error.empty()) throw edr::EventException(refresh_error);
  }
  void UpdateFilePath(const std::string& path) override { file->SetPath(path); }
  void UpdateNewFilePath(const std::string& path) override { new_file->SetPath(path); }
  void UpdateActorProcessId(std::int32_t new_pid) override { pid = new_pid; }
  void ParseRecord(int, const edr::RecordFields&) override {}
  void Validate() override {}
  [[nodiscard]] const std::string& GetAuditKey() const override { return audit_key; }
  [[nodiscard]] std::optional<common::util::FileState> GetFileState() const override { return state; }

 private:
  static const common::ImageInfo* Pointer(const std::optional<common::ImageInfo>& value) {
    return value ? &*value : nullptr;
  }
};

}  // namespace zagent::fakes
