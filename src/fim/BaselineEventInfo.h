#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/src/util/Clock.h"
#include "src/edr/PartialEvent.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::fim::internal {

// How a file looked when a rule with `trackContentChange` first met it: the "before" of all later changes. Nobody did
// anything, so there is no actor. It knows nothing of records and is never cloned: it is written as soon as it is made.
class BaselineEventInfo final : public edr::PartialEvent {
 public:
  // Looks at the file (lstat) and reads its content, as ReadFileContent does. A file that is not there, or cannot be
  // looked at, gives an event without settings and content, and a debug line.
  BaselineEventInfo(std::uint32_t id, edr::EventType type, const std::string& path, const common::util::Clock& clock);
  BaselineEventInfo(const BaselineEventInfo&) = delete;
  BaselineEventInfo& operator=(const BaselineEventInfo&) = delete;
  ~BaselineEventInfo() override = default;

  [[nodiscard]] edr::EventType GetType() const override { return type_; }
  [[nodiscard]] std::string GetAction() const override { return "Baseline"; }
  // That of the event which met the file.
  [[nodiscard]] std::uint32_t GetId() const override { return id_; }
  [[nodiscard]] edr::ObjectType GetObjectType() const override { return edr::ObjectType::File; }
  // When the look was taken.
  [[nodiscard]] std::int64_t GetTimestamp() const override { return creation_time_ * 1'000'000'000; }
  // The owner of the file.
  [[nodiscard]] std::uint32_t GetActorAuid() const override { return file_->GetOwnerId(); }
  [[nodiscard]] const common::ImageInfo* GetFile() const override { return file_.get(); }
  [[nodiscard]] const std::vector<unsigned char>& GetFileContent() const override { return content_; }
  [[nodiscard]] const std::string& GetFileReadStatus() const override { return content_status_; }
  [[nodiscard]] bool IsSymlink() const override { return is_symlink_; }
  // The refusal of this question is known by other words than the rest.
  [[nodiscard]] bool IsElevated() const override;
  void ParseRecord(int type, const edr::RecordFields& fields) override;
  void Validate() override;
  [[nodiscard]] const std::string& GetAuditKey() const override;

 private:
  std::uint32_t id_;
  edr::EventType type_;
  std::int64_t creation_time_;  // seconds since the epoch
  std::vector<unsigned char> content_;
  std::unique_ptr<common::ImageInfo> file_;  // never null
  std::string content_status_;
  bool is_symlink_ = false;
};

}  // namespace zagent::fim::internal
