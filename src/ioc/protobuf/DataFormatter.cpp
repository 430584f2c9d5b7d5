#include "src/ioc/protobuf/DataFormatter.h"

#include <Poco/Environment.h>
#include <Poco/UUIDGenerator.h>
#include <google/protobuf/io/coded_stream.h>

#include <array>
#include <charconv>
#include <limits>
#include <optional>
#include <utility>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlStorage.h"
#include "common/src/util/Log.h"
#include "common/src/util/ProcessTimes.h"
#include "common/src/util/Utf8.h"
#include "src/ioc/config/Config.h"
#include "src/ioc/config/LogPrefix.h"
#include "src/ioc/process/SnapshotSqlDataFormatter.h"
#include "src/ioc/protobuf/BatchItem.h"
#include "src/ioc/protobuf/IocEvents.pb.h"

namespace zagent::ioc::internal::protobuf {
namespace {

namespace wire = com::ostrel::ioc::model::proto::event;

using common::DataFormatterException;

constexpr const char* kClientInformation = SnapshotSqlDataFormatter::kClientInformation;
constexpr const char* kBootTime = SnapshotSqlDataFormatter::kBootTime;
constexpr const char* kSequenceNumber = SnapshotSqlDataFormatter::kSequenceNumber;

// Adds what the bytes say to the field. Its size within the batch, with the field's number, which is below 16, and the
// element's length in front; nothing when they say no such message.
template <typename Element>
std::optional<std::size_t> AddElement(google::protobuf::RepeatedPtrField<Element>& field, const common::Bytes& data) {
  const std::size_t size = data.size() - 1;
  Element* element = field.Add();
  if (size > std::numeric_limits<int>::max() || !element->ParseFromArray(data.data() + 1, static_cast<int>(size))) {
    field.RemoveLast();
    return std::nullopt;
  }
  const std::size_t length = element->ByteSizeLong();
  return 1 + google::protobuf::io::CodedOutputStream::VarintSize64(length) + length;
}

struct KindOfEvent {
  const char* name;
  std::optional<std::size_t> (*add)(wire::IoCEvent& batch, const common::Bytes& data);
};

// By Kind.
constexpr std::array<KindOfEvent, 5> kKinds = {{
    {"directory", [](wire::IoCEvent& b, const common::Bytes& d) { return AddElement(*b.mutable_directoryevent(), d); }},
    {"file", [](wire::IoCEvent& b, const common::Bytes& d) { return AddElement(*b.mutable_fileevent(), d); }},
    {"loaded-module",
     [](wire::IoCEvent& b, const common::Bytes& d) { return AddElement(*b.mutable_loadedmodule(), d); }},
    {"network", [](wire::IoCEvent& b, const common::Bytes& d) { return AddElement(*b.mutable_networkevent(), d); }},
    {"process", [](wire::IoCEvent& b, const common::Bytes& d) { return AddElement(*b.mutable_processevent(), d); }},
}};

std::int64_t ParseBootTime(const std::string& text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error == std::errc::result_out_of_range) {
    throw DataFormatterException("Protobuf::DataFormatterException: boottime number out of range.");
  }
  if (error != std::errc() || end != text.data() + text.size()) {
    throw DataFormatterException("Protobuf::DataFormatterException: Error in reading boottime from snapshot");
  }
  return value;
}

// Nothing when there is none yet.
std::optional<std::int64_t> ReadStoredBootTime(common::SqlStorage& snapshot) {
  std::string text;
  try {
    const common::Bytes row = snapshot.Read(kClientInformation, kBootTime);
    if (row.empty()) return std::nullopt;
    common::Serializer columns(row);
    columns.GetString();
    text = columns.GetString();
  } catch (const std::exception&) {
    throw DataFormatterException("Protobuf::DataFormatterException: Error in reading boottime from snapshot");
  }
  return ParseBootTime(text);
}

}  // namespace

DataFormatter::DataFormatter(const Config& config, std::int64_t sequence_number, common::SqlStorage& snapshot,
                             std::string proc_root)
    : config_(config),
      sequence_number_(sequence_number),
      snapshot_(snapshot),
      proc_root_(std::move(proc_root)),
      message_(std::make_unique<Message>()) {}

DataFormatter::~DataFormatter() {
  OnStored();
}

void DataFormatter::Append(const common::Bytes& data) {
  if (state_ != State::Open) throw DataFormatterException("DataFormatter::Append: Invalid state.");
  if (!message_->has_agent()) AddHeader();
  if (data.empty() || data[0] >= kKinds.size()) {
    ZLOG_ERROR("DataFormatter::Append: Ignoring unknown type of event.");
    return;
  }
  const KindOfEvent& kind = kKinds.at(data[0]);
  const std::optional<std::size_t> added = kind.add(*message_, data);
  if (!added) throw DataFormatterException(std::string("Failed to add ") + kind.name + " event to protobuf cache.");
  size_ += *added;
  ZLOG_DEBUG("Added " << kind.name << " event to protobuf cache.");
}

common::Bytes DataFormatter::Finish() {
  if (state_ != State::Open) throw DataFormatterException("DataFormatter::Finish: Invalid state.");
  state_ = State::Closed;
  const std::unique_ptr<Message> message = std::move(message_);
  size_ = 0;
  const std::size_t size = message->ByteSizeLong();
  common::Bytes payload(size > std::numeric_limits<int>::max() ? 0 : size);
  if (!message->SerializeToArray(payload.data(), static_cast<int>(payload.size()))) {
    throw DataFormatterException("DataFormatter::Finish: Failed to serialize protobuf message.");
  }
  if (message->has_agent()) {
    finished_number_ = sequence_number_;
    is_number_unsaved_ = true;
  }
  return payload;
}

void DataFormatter::OnStored() {
  if (std::exchange(is_number_unsaved_, false)) SaveSequenceNumber();
}

void DataFormatter::Clear() {
  message_ = std::make_unique<Message>();
  size_ = 0;
  state_ = State::Open;
}

void DataFormatter::AddHeader() {
  const std::int64_t boot_time = UpdateBootTime();
  const common::CommonConfig& common = config_.GetCommon();
  wire::Agent& agent = *message_->mutable_agent();
  agent.set_customerid(common::util::ReplaceInvalidUtf8(common.GetCustomerId()));
  agent.set_agentid(common::util::ReplaceInvalidUtf8(common.GetAgentId()));
  agent.set_computername(common::util::ReplaceInvalidUtf8(Poco::Environment::nodeName()));
  agent.set_platform("LINUX");
  agent.set_isquarantine(config_.IsHostQuarantined());
  agent.set_boottime(boot_time);
  message_->set_sequenceno(static_cast<std::uint64_t>(++sequence_number_));
  message_->set_protofileid(Poco::UUIDGenerator::defaultGenerator().createRandom().toString());
  size_ = message_->ByteSizeLong();
}

std::int64_t DataFormatter::UpdateBootTime() {
  const std::optional<std::int64_t> stored = ReadStoredBootTime(snapshot_);
  std::int64_t boot_time = 0;
  try {
    boot_time = common::util::ReadBootTime(proc_root_);
  } catch (const std::runtime_error& error) {
    throw DataFormatterException(error.what());
  }
  if (stored == boot_time) return boot_time;
  const std::string text = std::to_string(boot_time);
  snapshot_.WriteAsync(
      kClientInformation, {{kBootTime, snapshot_.MakeRow(std::string(kBootTime), text)}},
      [text](const common::SqlStorage::Result& result) {
        if (result.succeeded) {
          ZLOG_DEBUG("Boot time: " << text << " written to Snapshot DB successfully");
        } else {
          ZLOG_ERROR("Failed to write boot time: " << text << " to Snapshot DB. Error: " << result.error);
        }
      });
  return boot_time;
}

void DataFormatter::SaveSequenceNumber() {
  const std::string text = std::to_string(finished_number_);
  snapshot_.WriteAsync(
      kClientInformation, {{kSequenceNumber, snapshot_.MakeRow(std::string(kSequenceNumber), text)}},
      [text](const common::SqlStorage::Result& result) {
        if (result.succeeded) {
          ZLOG_DEBUG("Sequence Number: " << text << " written to Snapshot DB successfully");
        } else {
          ZLOG_ERROR("Failed to write Sequence Number: " << text << " to Snapshot DB. Error: " << result.error);
        }
      });
}

}  // namespace zagent::ioc::internal::protobuf
