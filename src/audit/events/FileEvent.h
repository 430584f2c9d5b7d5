#pragma once

#include <sys/stat.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/src/util/FileState.h"
#include "src/audit/events/FileContext.h"
#include "src/audit/events/PathFinder.h"
#include "src/audit/events/PathRecord.h"
#include "src/audit/events/SyscallEvent.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::audit::internal {

// A call that made, changed or removed one file object, put together from the PATH, CWD and PROCTITLE records.
//
// Audit tells what happened, and the file may have moved on since: every look at the disk is held against the inode and
// device that the PATH record named, and a file that was replaced counts as gone. A file that is gone is a state and no
// error: sizes answer -1, times the event's time, digests and content stay empty. With extended coverage, a file that
// was replaced is no error either.
class FileEvent : public SyscallEvent {
 public:
  using Context = std::shared_ptr<const FileContext>;  // null: as an empty one

  FileEvent& operator=(const FileEvent&) = delete;
  ~FileEvent() override = default;

  [[nodiscard]] virtual const std::string& GetPath() const { return GetFile()->GetPath(); }

  [[nodiscard]] const std::string& GetCommandLine() const override { return process_title_; }
  [[nodiscard]] const common::ImageInfo* GetFile() const override { return file_ ? &*file_ : nullptr; }
  [[nodiscard]] std::int64_t GetFileAccessTime() const override;
  [[nodiscard]] std::int64_t GetFileChangeTime() const override;
  // The whole regular file: the limit is the caller's, who knows GetFileSize.
  [[nodiscard]] const std::vector<unsigned char>& GetFileContent() const override;
  [[nodiscard]] const std::vector<unsigned char>& GetFileContentHash(edr::ContentHash kind) const override;
  [[nodiscard]] std::int64_t GetFileModificationTime() const override;
  [[nodiscard]] std::int64_t GetFileSize() const override;
  [[nodiscard]] std::optional<common::util::FileState> GetFileState() const override;
  // Throws edr::EventException "Unsupported file type for <action> event" for a FIFO, socket or device.
  [[nodiscard]] edr::FileType GetFileType() const override;
  [[nodiscard]] const std::string& GetFileTypeDesc() const override;
  [[nodiscard]] edr::ObjectType GetObjectType() const override;
  [[nodiscard]] std::uint64_t GetParentInode() const override { return parent_inode_; }
  [[nodiscard]] const std::string& GetParentDeviceID() const override { return parent_device_; }
  [[nodiscard]] bool IsSymlink() const override;
  // Throws common::StatHelperException when another object is in the file's place, edr::EventException when there is
  // none. What was cached of the file is read anew afterwards. Where coverage is extended it throws nothing, and an
  // event whose file is gone or replaced keeps what its records said, without size, type, digests and content.
  void Refresh() override;
  void UpdateFilePath(const std::string& path) override { file_->SetPath(path); }
  void ParseRecord(int type, const edr::RecordFields& fields) override;
  void Validate() override;

 protected:
  // The records that file events read.
  static constexpr RecordKinds kRecords =
      KindsOf(record_type::kSyscall, record_type::kPath, record_type::kCwd, record_type::kProctitle);

  // What is needed of the file's stat.
  struct State {
    explicit State(const struct stat& result);
    std::uint32_t mode;
    std::uint32_t uid;
    std::uint32_t gid;
    std::int64_t access_time;        // seconds
    std::int64_t modification_time;  // seconds
    common::util::FileState file;    // with its size, and the time of its last change
  };

  // The PATH records, until Validate.
  struct Records {
    std::optional<PathRecord> object;
    std::optional<PathRecord> parent;
    std::string device = {};  // of the event's first PATH record that has one
  };

  explicit FileEvent(Context context)
      : context_(std::move(context)), piece_(NewestPiece()), records_(std::make_unique<Records>()) {}
  // For the delete that a rename over an existing file implies: the rename's actor and folder, but another object.
  FileEvent(PathRecord object, PathRecord parent, const FileEvent& rename);
  // Copies of a validated event only.
  FileEvent(const FileEvent& other);

  // Whether a PATH record is the work of a file system below the one that the call was made on: an overlay creates,
  // renames and deletes in its upper layer, on another device and without names. Called with each PATH record.
  [[nodiscard]] bool IsOfLayerBelow(const edr::RecordFields& fields);
  // Takes over one PATH record by its type word or, on old kernels, by its item number. Answers the type word.
  TypeWord ParsePath(const edr::RecordFields& fields);
  // Takes over a record that has been built.
  void TakePath(PathRecord record, const edr::RecordFields& fields);
  // Nothing, with a trace line, for a record that describes no file object.
  [[nodiscard]] std::optional<PathRecord> BuildPath(const edr::RecordFields& fields) const;
  // Holds `record` in `slot`, or adds it to the one that is held.
  static void HoldOrCombine(std::optional<PathRecord>& slot, PathRecord record);
  // Called once the call and all records are known, before any path is resolved.
  virtual void SettleRecords() {}

  // Where a relative name of the call starts from, if argument `directory_argument` says so.
  [[nodiscard]] PathFinder::Start StartOf(std::optional<std::size_t> directory_argument) const;
  [[nodiscard]] PathFinder Finder() const { return {Services(), cwd_, GetActorProcessId()}; }
  [[nodiscard]] const FileContext& Services() const;
  // The event is of no use without a path that can be trusted.
  void RefuseUnplaced();
  // Throws `text`; with extended coverage the event goes on without what the disk could add, and `text` is told.
  void LoseObject(const std::string& text) const;
  // Nothing, with a debug line, on failure.
  [[nodiscard]] std::optional<struct stat> LstatPath(const std::string& path) const;
  // The folder that the disk has there; nothing when there is none.
  [[nodiscard]] std::optional<FileIdentity> LookAt(const std::string& folder) const;
  // Whether the result is that of file_.
  [[nodiscard]] bool IsFile(const struct stat& result) const;
  [[nodiscard]] FileIdentity Identity() const { return {DeviceNumberOf(file_->GetDevice()), file_->GetInode()}; }
  // Keeps a result that is that of file_.
  void KeepState(const struct stat& result);
  // A folder of the call is at the path of file_ since, or no longer anywhere.
  void LearnFolder() const;
  void ForgetFolder(const FileIdentity& folder) const;

  // Looks the file up on disk, behind a symbolic link if `follow`, and keeps the result if it is the audited object.
  // Loses the object when it is another one. A link that is the audited object itself is not followed.
  void Stat(bool follow);

  // Which PATH record described the object: Create, Delete, Normal or None.
  [[nodiscard]] TypeWord ObjectWord() const { return object_word_; }
  [[nodiscard]] const std::string& WorkingDirectory() const { return cwd_; }
  [[nodiscard]] Records& PathRecords() { return *records_; }

  std::optional<common::ImageInfo> file_;  // where the object is on disk now
  std::optional<State> state_;             // of file_; nothing when it could not be confirmed
  bool is_symlink_ = false;
  edr::ObjectType object_type_ = edr::ObjectType::File;
  std::string parent_device_;
  std::uint64_t parent_inode_ = 0;

 private:
  struct Digests {
    std::vector<unsigned char> md5, sha1, sha256;
  };
  // What is read of the file when somebody asks for it.
  struct OnDemand {
    std::string type_description;
    bool digests_tried = false;
    Digests digests;
    std::vector<unsigned char> content;
  };

  void ParseItemPath(PathRecord record);
  void MergeObject(PathRecord record);
  void ResolveFile();
  [[nodiscard]] FileIdentity IdentityAt(const std::string& folder, const struct stat& found) const;
  void FindParent();
  [[nodiscard]] std::optional<std::int32_t> ObjectDescriptor() const;
  [[nodiscard]] bool FollowLink(struct stat& result);
  [[nodiscard]] Digests GenerateDigests() const;
  [[nodiscard]] std::optional<std::string> IdentifyType() const;
  [[nodiscard]] std::string DiffersText() const;
  [[nodiscard]] std::uint64_t NewestPiece() const;
  [[nodiscard]] struct stat LookAgain() const;

  Context context_;
  std::uint64_t piece_ = 0;  // of records, with which the last of the event's had been read
  bool is_gone_ = false;     // as Refresh found
  bool has_cwd_ = false;
  std::string cwd_;
  std::string process_title_;
  TypeWord object_word_ = TypeWord::None;
  std::unique_ptr<Records> records_;
  mutable common::util::DeepPtr<OnDemand> on_demand_;
};

}  // namespace zagent::audit::internal
