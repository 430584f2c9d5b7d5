#pragma once

#include "src/audit/events/DeleteEvent.h"
#include "src/audit/events/FileEvent.h"

namespace zagent::audit::internal {

// A file or folder got another name. GetFile is the object under its old name, GetNewFile under its new one; every
// other question about the file is answered from where it is now.
class RenameEvent final : public FileEvent {
 public:
  // The event that the source stands at. Throws when the event cannot be built. When the rename replaced an
  // existing file, `*replaced` becomes the delete of that file (same id, time and actor); it is left alone otherwise.
  RenameEvent(RecordSource& source, Context context, std::unique_ptr<DeleteEvent>* replaced);
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
  // The folder that the object came from; without an inode when the records did not say.
  [[nodiscard]] const FileIdentity& OldFolder() const { return old_folder_; }
  void UpdateFilePath(const std::string& path) override { old_file_->SetPath(path); }
  void UpdateNewFilePath(const std::string& path) override { file_->SetPath(path); }
  void ParseRecord(int type, const edr::RecordFields& fields) override;
  void Validate() override;

 private:
  // The records of the destination, until the constructor's end.
  struct Destination {
    // Where a record of this word belongs; null for words that say nothing of a destination.
    std::optional<PathRecord>* SlotOf(TypeWord word);

    std::optional<PathRecord> object;
    std::optional<PathRecord> parent;
    std::optional<PathRecord> replaced;  // the file that stood in the way
    std::optional<PathRecord> swapped;   // that file under the old name of the other: they were exchanged
    bool folders_told = false;           // where the folder has gone
    unsigned paths_seen = 0;             // where in the order of the PATH records the parser is, 0 to 3

    // The folders of objects without names, which come right before them; and the last of these.
    std::optional<PathRecord> source_folder, own_folder, last_folder;
  };

  RenameEvent(const RenameEvent& other)
      : FileEvent(other), old_file_(other.old_file_), old_folder_(other.old_folder_) {}

  void ParseUnnamed(PathRecord record);
  void ParseDestination(const edr::RecordFields& fields);
  void TakeDestination(PathRecord record, std::optional<PathRecord>& slot);
  void HoldItemDestination(PathRecord record);
  void SettleRecords() override;
  void SettleUnnamed();
  [[nodiscard]] bool ParentsAreCrossed();
  void Settle();
  void ResolveDestination();
  void LoseFolder() const;
  void TellFolders();
  void ConfirmDestination(const PathRecord& parent);
  void SplitReplaced(std::unique_ptr<DeleteEvent>* replaced);

  std::unique_ptr<Destination> destination_;
  std::optional<common::ImageInfo> old_file_;
  FileIdentity old_folder_;
};

}  // namespace zagent::audit::internal
