#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/src/util/FileState.h"

namespace zagent::common {
class ImageInfo;
}

namespace zagent::edr {

class EventException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class EventType : std::uint8_t {
  Accept = 1,
  Create = 2,
  Delete = 3,
  Read = 4,
  Write = 5,
  AttributeChange = 7,
  Rename = 8,
  ProcessStart = 9,
  ProcessClone = 10,
  ProcessExit = 11,
  Connect = 12,
  Bind = 13,
  Baseline = 15,
  AbnormalEnd = 16,
};

enum class ObjectType : std::uint8_t { File = 1, Directory = 2, Process = 3, Network = 4 };

enum class FileType : std::uint8_t { Directory = 2, Regular = 3, SymbolicLink = 5, Unknown = 6 };

// As passed to GetFileContentHash. HashGenerator counts its kinds differently.
enum class ContentHash : std::uint8_t { Md5 = 0, Sha1 = 1, Sha256 = 2 };

class RecordFields;

// Everything that a consumer may ask of any event. A concrete event answers what makes sense for it and throws a plain
// std::runtime_error ("GetFile not implemented") for the rest, so a consumer looks at GetType and GetObjectType first
// and never casts.
//
// An event is built and validated once, then read by one thread at a time; the answers marked "on demand" are looked
// up at the first question and cached. Who keeps an event that others read keeps a Clone.
class Event {
 public:
  Event() = default;
  Event& operator=(const Event&) = delete;
  virtual ~Event() = default;

  [[nodiscard]] virtual std::unique_ptr<Event> Clone() const = 0;
  [[nodiscard]] virtual EventType GetType() const = 0;
  // "Create", "Write", "Rename" and so on.
  [[nodiscard]] virtual std::string GetAction() const = 0;
  // Serial number of the audit event; several events may share it (a rename over a file).
  [[nodiscard]] virtual std::uint32_t GetId() const = 0;

  // The actor, from the SYSCALL record. Names are looked up on demand; an unknown id answers its decimal digits.
  [[nodiscard]] virtual std::uint32_t GetActorEuid() const = 0;
  [[nodiscard]] virtual const std::vector<std::string>& GetActorProcessArguments() const = 0;
  [[nodiscard]] virtual std::int32_t GetActorProcessId() const = 0;
  [[nodiscard]] virtual std::int32_t GetActorParentProcessId() const = 0;
  [[nodiscard]] virtual const std::string& GetActorUserName() const = 0;
  [[nodiscard]] virtual std::uint32_t GetActorUserId() const = 0;
  [[nodiscard]] virtual const std::string& GetActorLoginName() const = 0;
  [[nodiscard]] virtual std::uint32_t GetActorAuid() const = 0;  // 4294967295: no login session
  // The PROCTITLE record's text.
  [[nodiscard]] virtual const std::string& GetCommandLine() const = 0;

  // The file object as the PATH record saw it before the call; GetNewFile as it is after it.
  [[nodiscard]] virtual const common::ImageInfo* GetFile() const = 0;
  [[nodiscard]] virtual std::int64_t GetFileAccessTime() const = 0;                    // ns since the epoch
  [[nodiscard]] virtual std::int64_t GetFileChangeTime() const = 0;                    // ns since the epoch
  [[nodiscard]] virtual const std::vector<unsigned char>& GetFileContent() const = 0;  // on demand, from the disk
  // On demand; empty when the file is gone, replaced or no regular file.
  [[nodiscard]] virtual const std::vector<unsigned char>& GetFileContentHash(ContentHash kind) const = 0;
  [[nodiscard]] virtual std::int64_t GetFileModificationTime() const = 0;  // ns since the epoch
  [[nodiscard]] virtual std::int64_t GetFileSize() const = 0;              // bytes, -1 when unknown
  [[nodiscard]] virtual FileType GetFileType() const = 0;
  [[nodiscard]] virtual const std::string& GetFileTypeDesc() const = 0;  // on demand, from libmagic
  // The actor's executable (SYSCALL record's exe), by the name that it has for the actor: see IsImageDisguised.
  [[nodiscard]] virtual const common::ImageInfo* GetImage() const = 0;
  [[nodiscard]] virtual const common::ImageInfo* GetNewFile() const = 0;
  [[nodiscard]] virtual ObjectType GetObjectType() const = 0;
  [[nodiscard]] virtual std::uint64_t GetParentInode() const = 0;
  [[nodiscard]] virtual const std::string& GetParentDeviceID() const = 0;
  [[nodiscard]] virtual const std::string& GetCwd() const = 0;
  [[nodiscard]] virtual const common::ImageInfo* GetSecondaryImage() const = 0;
  [[nodiscard]] virtual std::int64_t GetTimestamp() const = 0;  // ns since the epoch; whole seconds for audit events
  [[nodiscard]] virtual const std::string& GetNetworkAddress() const = 0;
  [[nodiscard]] virtual std::uint32_t GetNetworkPort() const = 0;
  // "READ_SUCCESSFUL", "READ_FAILURE" or "MAX_SIZE_LIMIT_REACHED".
  [[nodiscard]] virtual const std::string& GetFileReadStatus() const = 0;
  [[nodiscard]] virtual bool HasSecondaryImage() const = 0;
  [[nodiscard]] virtual bool IsSymlink() const = 0;
  [[nodiscard]] virtual bool IsSuccessful() const = 0;
  // A logged-in user other than root acts as root.
  [[nodiscard]] virtual bool IsElevated() const = 0;

  // Looks at the object on disk again. Throws when another object is in its place.
  virtual void Refresh() = 0;
  // The object was called by one path of several: corrects the path of GetFile, and of what a rename made of it. Events
  // of other objects leave it at that.
  virtual void UpdateFilePath(const std::string& /*path*/) {}
  virtual void UpdateNewFilePath(const std::string& /*path*/) {}
  // Corrects a thread id to its process id.
  virtual void UpdateActorProcessId(std::int32_t pid) = 0;
  // One audit record of this event, by its kernel type number.
  virtual void ParseRecord(int type, const RecordFields& fields) = 0;
  // After the last record; throws EventException when something needed is missing.
  virtual void Validate() = 0;
  // The key of the kernel rule that matched; names only one of several matching rules.
  [[nodiscard]] virtual const std::string& GetAuditKey() const = 0;
  // The file as GetFileSize and the times tell of it; nothing where they do not know it.
  [[nodiscard]] virtual std::optional<common::util::FileState> GetFileState() const { return std::nullopt; }

  // A look at the time of the record has proved that the actor's executable is another file than GetImage names here:
  // whoever may make a mount namespace or a chroot calls a program in it what he likes. False says nothing; nobody
  // looks before a rule trusts the name (EventRule::TrustsProgramOf).
  [[nodiscard]] bool IsImageDisguised() const { return is_image_disguised_; }
  void SetImageDisguised() { is_image_disguised_ = true; }

  // When the kernel made the actor, as procfs said to whoever asked first; others need not ask again.
  struct ActorStart {
    std::optional<std::int64_t> since_boot;  // ns; nothing when it was gone, or another had its pid
  };
  [[nodiscard]] const std::optional<ActorStart>& GetActorStart() const { return actor_start_; }
  void SetActorStart(std::optional<std::int64_t> since_boot) { actor_start_ = ActorStart{since_boot}; }

 protected:
  Event(const Event&) = default;

 private:
  bool is_image_disguised_ = false;
  std::optional<ActorStart> actor_start_;
};

}  // namespace zagent::edr
