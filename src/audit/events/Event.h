#pragma once

#include <string>

#include "src/audit/events/RecordSource.h"
#include "src/edr/PartialEvent.h"

namespace zagent::audit::internal {

// An event that is built from the records of one audit event. It answers its id and timestamp.
//
// The constructor of each final class calls Feed, so that the virtual ParseRecord, Validate and GetAction are its own.
class Event : public edr::PartialEvent {
 public:
  Event& operator=(const Event&) = delete;
  ~Event() override = default;

  [[nodiscard]] std::uint32_t GetId() const override { return id_; }
  [[nodiscard]] std::int64_t GetTimestamp() const override { return timestamp_; }
  // Throws edr::EventException "Missing event ID or timestamp".
  void Validate() override;

  // The absolute path of `child`: itself when it is absolute, else below `parent`, which may be relative to `cwd` or
  // empty. "." and ".." and doubled separators are taken out by their text alone. Throws edr::EventException.
  [[nodiscard]] static std::string ResolvePath(const std::string& cwd, const std::string& parent,
                                               const std::string& child);

 protected:
  Event() = default;
  Event(const Event&) = default;

  // Reads the event's records of the wanted kinds into ParseRecord, then calls Validate. Whatever they throw means that
  // there is no such event.
  void Feed(RecordSource& source, RecordKinds wanted);

 private:
  std::uint32_t id_ = 0;
  std::int64_t timestamp_ = 0;
};

}  // namespace zagent::audit::internal
