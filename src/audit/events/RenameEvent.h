#pragma once

#include "src/audit/events/DeleteEvent.h"
#include "src/audit/events/FileEvent.h"

namespace zagent::audit::internal {

// A file or folder got another name. GetFile is the object under its old name, GetNewFile under its new one; every
// other question about the file is answered from where it is now.
class RenameEvent final : public FileEvent {
 public:
  // The complete event at the cursor of the state. Throws when the event cannot be built. When the rename replaced an
  // existing file, `*replaced` becomes the delete of that file (same id, time and actor); it is left alone otherwise.
  RenameEvent(auparse_state_t* state, std::shared_ptr<edr::LibMagicWrapper> lib_magic,
              std::unique_ptr<DeleteEvent>* replaced);
  RenameEvent(RecordSource& source, std::shared_ptr<edr::LibMagicWrapper> lib_magic,
              std::unique_ptr<DeleteEvent>* replaced);
  RenameEvent& operator=(const RenameEvent&) = delete;
  ~RenameEvent() override = default;

  [[nodiscard]] std::unique_ptr<edr::Event> Clone() const override;
  [[nodiscard]] edr::EventType GetType() const override { return edr::EventType::Rename; }
  [[nodiscard]] std::string GetAction() const override { return "Rename"; }
  [[nodiscard]] const common::ImageInfo* GetFile() const override { return old_file_ ? &*old_file_ : nullptr; }
  [[nodiscard]] const common::ImageInfo* GetNewFile() const override { return file_ ? &*file_ : nullptr; }
  // Throw edr::EventException when the record of the destination's folder did not say.
  [[nodiscard]] std::uint64_t GetParentInode() const override;
  [[nodiscard]] const std::string& GetParentDeviceID() const override;
  void ParseRecord(int type, const edr::RecordFields& fields) override;
  void Validate() override;

 private:
  RenameEvent(const RenameEvent&) = default;

  void ParseDestination(const edr::RecordFields& fields);
  void HoldTypedDestination(PathRecord record);
  void HoldItemDestination(PathRecord record);
  void SettleRecords() override;
  [[nodiscard]] bool ParentsAreCrossed() const;
  void ConfirmDestination(const PathRecord& parent);
  void SplitReplaced(std::unique_ptr<DeleteEvent>* replaced);

  // Until Validate.
  std::optional<PathRecord> new_record_;
  std::optional<PathRecord> new_parent_record_;
  // Until the constructor's end.
  std::optional<PathRecord> replaced_record_;
  std::optional<PathRecord> replaced_parent_;
  std::optional<common::ImageInfo> old_file_;
  unsigned paths_seen_ = 0;  // where in the order of the PATH records the parser is, 0 to 3
};

}  // namespace zagent::audit::internal
