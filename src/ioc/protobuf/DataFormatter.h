#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "common/src/storage/DataFormatter.h"

namespace zagent::common {
class SqlStorage;
}

namespace zagent::ioc {
class Config;
}

namespace zagent::ioc::internal::protobuf {

// The shape of the spool files of indicators of compromise: one serialised IoCEvent each, a batch. It begins at the
// first Append with who sends it, a random id and the next sequence number, by which the platform sees that a batch
// was lost. The number is written to the snapshot when the batch is on disk, so after a kill it may come twice but is
// never left out. That of a batch that has not got there by the end is written then: the batch is lost.
//
// Between Finish and Clear there is no batch: both Append and Finish throw DataFormatterException, "Invalid state.".
class DataFormatter final : public common::DataFormatter {
 public:
  // `sequence_number`: that of the last batch. The snapshot, which runs on a Scheduler, and the configuration outlive
  // the object.
  DataFormatter(const Config& config, std::int64_t sequence_number, common::SqlStorage& snapshot,
                std::string proc_root = "/proc");
  DataFormatter(const DataFormatter&) = delete;
  DataFormatter& operator=(const DataFormatter&) = delete;
  ~DataFormatter() override;

  // An item of MakeItem. One of an unknown kind is logged and left out. Throws DataFormatterException for a message
  // that cannot be parsed, and at the beginning of a batch when the boot time of the snapshot cannot be read: no batch
  // begins then.
  void Append(const common::Bytes& data) override;
  // Nothing, and no number, when there was no Append. A number whose batch cannot be serialised is lost.
  common::Bytes Finish() override;
  // What Finish would give now, kept by adding.
  [[nodiscard]] std::size_t Size() const override { return size_; }
  void Clear() override;
  void OnStored() override;

 private:
  enum class State { Closed, Open };
  struct Batch;

  void AddHeader();
  // When the machine was started, in seconds since the epoch. Remembered in the snapshot when it is another one than
  // there.
  std::int64_t UpdateBootTime();
  void SaveSequenceNumber();

  const Config& config_;
  std::int64_t sequence_number_;
  bool is_number_unsaved_ = false;  // that of the batch that was finished last
  std::int64_t finished_number_ = 0;
  common::SqlStorage& snapshot_;
  const std::string proc_root_;
  std::unique_ptr<Batch> batch_;
  std::size_t size_ = 0;
  State state_ = State::Open;
};

}  // namespace zagent::ioc::internal::protobuf
