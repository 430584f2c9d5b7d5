#pragma once

#include <memory>
#include <string>
#include <vector>

#include "src/audit/events/Event.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::audit::internal {

// The kernel has dropped rules by itself, because the folder that they watched is gone: CONFIG_CHANGE records with
// "op=remove_rule" and the path that the rules were made with. In itself the removal of that folder by nobody known;
// the call that removed it tells of it, too, if there was one.
class RuleRemovedEvent final : public Event {
 public:
  // The event that the source stands at. Throws edr::EventException when no rule was dropped for lack of its object.
  explicit RuleRemovedEvent(RecordSource& source);
  RuleRemovedEvent& operator=(const RuleRemovedEvent&) = delete;
  ~RuleRemovedEvent() override = default;

  struct RemovedRule {
    std::string key;   // as the kernel wrote it
    std::string path;  // that the rule was made with
  };
  [[nodiscard]] const std::vector<RemovedRule>& RemovedRules() const { return rules_; }
  // Whether a call did it, which the same records tell: an event of its own.
  [[nodiscard]] bool IsToldByCall() const { return is_told_by_call_; }

  [[nodiscard]] std::unique_ptr<edr::Event> Clone() const override;
  [[nodiscard]] edr::EventType GetType() const override { return edr::EventType::Delete; }
  [[nodiscard]] std::string GetAction() const override { return "Delete"; }
  [[nodiscard]] edr::ObjectType GetObjectType() const override { return object_type_; }
  // Nobody known.
  [[nodiscard]] std::int32_t GetActorProcessId() const override { return 0; }
  [[nodiscard]] std::uint32_t GetActorAuid() const override { return kNoLogin; }
  [[nodiscard]] const std::string& GetActorLoginName() const override;
  [[nodiscard]] const common::ImageInfo* GetImage() const override { return nullptr; }
  [[nodiscard]] const common::ImageInfo* GetFile() const override { return &file_; }
  [[nodiscard]] std::int64_t GetFileSize() const override { return -1; }
  [[nodiscard]] bool IsElevated() const override { return false; }
  [[nodiscard]] const std::string& GetAuditKey() const override { return rules_.front().key; }
  void Refresh() override {}
  void ParseRecord(int type, const edr::RecordFields& fields) override;
  void Validate() override;

 private:
  RuleRemovedEvent(const RuleRemovedEvent&) = default;

  std::vector<RemovedRule> rules_;
  common::ImageInfo file_{""};
  edr::ObjectType object_type_ = edr::ObjectType::Directory;
  bool is_told_by_call_ = false;
};

}  // namespace zagent::audit::internal
