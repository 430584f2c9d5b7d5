#pragma once

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

#include "src/audit/events/FileContext.h"
#include "src/audit/events/PathRecord.h"
#include "src/audit/events/SyscallEvent.h"

namespace zagent::audit::internal {

// A process started a program (execve). GetImage is the program; of a script it is the interpreter, and
// GetSecondaryImage is the script.
class RunningEvent final : public SyscallEvent {
 public:
  // The event that the source stands at. Throws when the event cannot be built, or when the program on disk is not the
  // one that the records describe.
  explicit RunningEvent(RecordSource& source, std::shared_ptr<const FileContext> context = nullptr);
  RunningEvent& operator=(const RunningEvent&) = delete;
  ~RunningEvent() override = default;

  [[nodiscard]] std::unique_ptr<edr::Event> Clone() const override;
  [[nodiscard]] edr::EventType GetType() const override { return edr::EventType::ProcessStart; }
  [[nodiscard]] std::string GetAction() const override { return "Execve"; }
  [[nodiscard]] edr::ObjectType GetObjectType() const override { return edr::ObjectType::Process; }
  // The first 255 arguments, as the EXECVE records give them; an empty one is left out.
  [[nodiscard]] const std::vector<std::string>& GetActorProcessArguments() const override { return arguments_; }
  [[nodiscard]] const common::ImageInfo* GetImage() const override { return image_ ? &*image_ : nullptr; }
  [[nodiscard]] const common::ImageInfo* GetSecondaryImage() const override { return script_.Find(); }
  [[nodiscard]] bool HasSecondaryImage() const override { return script_.Find() != nullptr; }
  [[nodiscard]] const std::string& GetCwd() const override { return cwd_; }
  void ParseRecord(int type, const edr::RecordFields& fields) override;
  void Validate() override;

 private:
  RunningEvent(const RunningEvent&) = default;

  void ParseArguments(const edr::RecordFields& fields);
  [[nodiscard]] MountTable* Mounts() const;
  [[nodiscard]] DiskLooks* Looks() const;
  [[nodiscard]] bool IsAt(const std::string& path, const PathRecord& record) const;
  [[nodiscard]] std::string PathOf(const PathRecord& program) const;
  [[nodiscard]] std::optional<std::string> CanonicalPathOf(const std::string& program) const;
  [[nodiscard]] const PathRecord& InterpreterRecord() const;
  void SetImages();
  // Later looks at the image meet the device that a stat tells, where that is not the record's.
  void TakeDeviceOf(const struct stat& found);
  [[nodiscard]] bool IsImage(const struct stat& found) const;
  void ConfirmImage();

  std::shared_ptr<const FileContext> context_;
  std::vector<std::string> arguments_;
  std::size_t argument_count_ = 0;  // as the first EXECVE record announced it
  bool has_cwd_ = false;
  std::string cwd_;
  std::vector<PathRecord> records_;  // in their order, until Validate
  std::optional<common::ImageInfo> image_;
  common::util::DeepPtr<common::ImageInfo> script_;
};

}  // namespace zagent::audit::internal
