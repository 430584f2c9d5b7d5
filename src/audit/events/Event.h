#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "common/src/util/DeepPtr.h"
#include "src/audit/events/RecordSource.h"
#include "src/edr/PartialEvent.h"

namespace zagent::audit::internal {

// An event that is built from the records of one audit event. It answers its id and timestamp.
//
// The constructor of each final class calls Feed, so that the virtual ParseRecord, Validate and GetAction are its own.
// Whoever constructs one asks for its Refusal before anything else.
class Event : public edr::PartialEvent {
 public:
  Event& operator=(const Event&) = delete;
  ~Event() override = default;

  [[nodiscard]] std::uint32_t GetId() const override { return id_; }
  [[nodiscard]] std::int64_t GetTimestamp() const override { return timestamp_; }
  // Throws edr::EventException "Missing event ID or timestamp".
  void Validate() override;

  // What a refused event is to those who count.
  enum class Loss : std::uint8_t {
    NotBuilt,  // the records do not make an event
    Unplaced,  // nobody can tell which path is meant
  };

  // Why the records make no event after all; null for a sound event. That a file is gone by the time anybody looks is
  // an ordinary thing, so it is told without an exception. A refused event reaches no consumer.
  [[nodiscard]] const std::string* Refusal() const { return refusal_.Find(); }
  [[nodiscard]] Loss GetLoss() const { return loss_; }

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
  // To be followed by nothing: a derived class returns when the Validate of its base has refused.
  void Refuse(std::string reason, Loss loss = Loss::NotBuilt) {
    refusal_.Get(std::move(reason));
    loss_ = loss;
  }

 private:
  std::uint32_t id_ = 0;
  std::int64_t timestamp_ = 0;
  common::util::DeepPtr<std::string> refusal_;
  Loss loss_ = Loss::NotBuilt;
};

}  // namespace zagent::audit::internal
