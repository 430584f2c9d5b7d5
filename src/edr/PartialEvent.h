#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "src/edr/Event.h"

namespace zagent::edr {

// An event that answers only what its class knows: every question that a derived class leaves open throws a plain
// std::runtime_error in the known words ("GetFile not implemented"). Without more knowledge it has no secondary image,
// was successful, and takes nothing from records.
class PartialEvent : public Event {
 public:
  PartialEvent& operator=(const PartialEvent&) = delete;
  ~PartialEvent() override = default;

  [[nodiscard]] std::unique_ptr<Event> Clone() const override;
  [[nodiscard]] std::uint32_t GetActorEuid() const override;
  [[nodiscard]] const std::vector<std::string>& GetActorProcessArguments() const override;
  [[nodiscard]] std::int32_t GetActorProcessId() const override;
  [[nodiscard]] std::int32_t GetActorParentProcessId() const override;
  [[nodiscard]] const std::string& GetActorUserName() const override;
  [[nodiscard]] std::uint32_t GetActorUserId() const override;
  [[nodiscard]] const std::string& GetActorLoginName() const override;
  [[nodiscard]] std::uint32_t GetActorAuid() const override;
  [[nodiscard]] const std::string& GetCommandLine() const override;
  [[nodiscard]] const common::ImageInfo* GetFile() const override;
  [[nodiscard]] std::int64_t GetFileAccessTime() const override;
  [[nodiscard]] std::int64_t GetFileChangeTime() const override;
  [[nodiscard]] const std::vector<unsigned char>& GetFileContent() const override;
  [[nodiscard]] const std::vector<unsigned char>& GetFileContentHash(ContentHash kind) const override;
  [[nodiscard]] std::int64_t GetFileModificationTime() const override;
  [[nodiscard]] std::int64_t GetFileSize() const override;
  [[nodiscard]] FileType GetFileType() const override;
  [[nodiscard]] const std::string& GetFileTypeDesc() const override;
  [[nodiscard]] const common::ImageInfo* GetImage() const override;
  [[nodiscard]] const common::ImageInfo* GetNewFile() const override;
  [[nodiscard]] std::uint64_t GetParentInode() const override;
  [[nodiscard]] const std::string& GetParentDeviceID() const override;
  [[nodiscard]] const std::string& GetCwd() const override;
  [[nodiscard]] const common::ImageInfo* GetSecondaryImage() const override;
  [[nodiscard]] const std::string& GetNetworkAddress() const override;
  [[nodiscard]] std::uint32_t GetNetworkPort() const override;
  [[nodiscard]] const std::string& GetFileReadStatus() const override;
  [[nodiscard]] bool HasSecondaryImage() const override { return false; }
  [[nodiscard]] bool IsSymlink() const override;
  [[nodiscard]] bool IsSuccessful() const override { return true; }
  [[nodiscard]] bool IsElevated() const override;
  void Refresh() override;
  void UpdateActorProcessId(std::int32_t pid) override;
  void ParseRecord(int /*type*/, const RecordFields& /*fields*/) override {}

 protected:
  PartialEvent() = default;
  PartialEvent(const PartialEvent&) = default;

  // The audit user id of everything that no user has logged in for.
  static constexpr std::uint32_t kNoLogin = 4294967295U;
  // Whether a logged-in user other than root acts as root.
  static bool IsElevatedActor(std::uint32_t auid, std::uint32_t euid) {
    return auid != kNoLogin && euid == 0 && auid > euid;
  }
};

}  // namespace zagent::edr
