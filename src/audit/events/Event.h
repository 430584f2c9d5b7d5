#pragma once

#include <string>

#include "src/audit/events/RecordSource.h"
#include "src/edr/Event.h"

namespace zagent::audit::internal {

// An event that is built from the records of one audit event. It answers its id and timestamp; every question that a
// derived class does not answer throws a plain std::runtime_error ("GetFile not implemented").
//
// The constructor of each final class calls Feed, so that the virtual ParseRecord, Validate and GetAction are its own.
class Event : public edr::Event {
 public:
  Event& operator=(const Event&) = delete;
  ~Event() override = default;

  [[nodiscard]] std::unique_ptr<edr::Event> Clone() const override;
  [[nodiscard]] std::uint32_t GetId() const override { return id_; }
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
  [[nodiscard]] const std::vector<unsigned char>& GetFileContentHash(edr::ContentHash kind) const override;
  [[nodiscard]] std::int64_t GetFileModificationTime() const override;
  [[nodiscard]] std::int64_t GetFileSize() const override;
  [[nodiscard]] edr::FileType GetFileType() const override;
  [[nodiscard]] const std::string& GetFileTypeDesc() const override;
  [[nodiscard]] const common::ImageInfo* GetImage() const override;
  [[nodiscard]] const common::ImageInfo* GetNewFile() const override;
  [[nodiscard]] std::uint64_t GetParentInode() const override;
  [[nodiscard]] const std::string& GetParentDeviceID() const override;
  [[nodiscard]] const std::string& GetCwd() const override;
  [[nodiscard]] const common::ImageInfo* GetSecondaryImage() const override;
  [[nodiscard]] std::int64_t GetTimestamp() const override { return timestamp_; }
  [[nodiscard]] const std::string& GetNetworkAddress() const override;
  [[nodiscard]] std::uint32_t GetNetworkPort() const override;
  [[nodiscard]] const std::string& GetFileReadStatus() const override;
  [[nodiscard]] bool HasSecondaryImage() const override { return false; }
  [[nodiscard]] bool IsSymlink() const override;
  [[nodiscard]] bool IsSuccessful() const override { return true; }
  [[nodiscard]] bool IsElevated() const override;
  void Refresh() override;
  void UpdateActorProcessId(std::int32_t pid) override;
  void ParseRecord(int /*type*/, const edr::RecordFields& /*fields*/) override {}
  // Throws edr::EventException "Missing event ID or timestamp".
  void Validate() override;

  // The absolute path of `child`: itself when it is absolute, else below `parent`, which may be relative to `cwd` or
  // empty. "." and ".." and doubled separators are taken out by their text alone. Throws edr::EventException.
  [[nodiscard]] static std::string ResolvePath(const std::string& cwd, const std::string& parent,
                                               const std::string& child);

 protected:
  Event() = default;
  Event(const Event&) = default;

  // Reads every record of the event into ParseRecord, then calls Validate. Whatever they throw means that there is no
  // such event.
  void Feed(auparse_state_t* state);
  void Feed(RecordSource& source);

 private:
  std::uint32_t id_ = 0;
  std::int64_t timestamp_ = 0;
};

}  // namespace zagent::audit::internal
