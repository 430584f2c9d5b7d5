#include "src/audit/events/RuleRemovedEvent.h"

#include <algorithm>
#include <utility>

namespace zagent::audit::internal {

using edr::RecordField;

RuleRemovedEvent::RuleRemovedEvent(RecordSource& source) {
  Feed(source, KindsOf(record_type::kConfigChange, record_type::kSyscall));
}

std::unique_ptr<edr::Event> RuleRemovedEvent::Clone() const {
  return std::unique_ptr<edr::Event>(new RuleRemovedEvent(*this));
}

const std::string& RuleRemovedEvent::GetActorLoginName() const {
  static const std::string kNobody;
  return kNobody;
}

void RuleRemovedEvent::ParseRecord(int type, const edr::RecordFields& fields) {
  if (type == record_type::kSyscall) {
    is_told_by_call_ = true;
    return;
  }
  // Without a path somebody took the rule away on purpose.
  const bool is_folder = fields.Has(RecordField::Dir);
  if (fields.Find(RecordField::Op) != "remove_rule" || (!is_folder && !fields.Has(RecordField::Path))) return;
  std::string key(fields.Find(RecordField::Key));
  key.erase(std::remove(key.begin(), key.end(), '"'), key.end());
  rules_.push_back({std::move(key), std::string(fields.Find(is_folder ? RecordField::Dir : RecordField::Path))});
  object_type_ = is_folder ? edr::ObjectType::Directory : edr::ObjectType::File;
}

void RuleRemovedEvent::Validate() {
  Event::Validate();
  if (rules_.empty()) throw edr::EventException("No rule was removed with its object");
  file_.SetPath(rules_.front().path);
}

}  // namespace zagent::audit::internal
