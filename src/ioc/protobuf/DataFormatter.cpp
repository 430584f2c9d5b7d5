#include "src/ioc/protobuf/DataFormatter.h"

#include <Poco/Environment.h>
#include <Poco/UUIDGenerator.h>
#include <google/protobuf/message_lite.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <optional>
#include <string_view>
#include <tuple>
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
#include "src/ioc/protobuf/PlainMessage.h"

namespace zagent::ioc::internal::protobuf {
namespace {

namespace wire = com::ostrel::ioc::model::proto::event;

using common::DataFormatterException;

constexpr const char* kClientInformation = SnapshotSqlDataFormatter::kClientInformation;
constexpr const char* kBootTime = SnapshotSqlDataFormatter::kBootTime;
constexpr const char* kSequenceNumber = SnapshotSqlDataFormatter::kSequenceNumber;

// One kind of elements in a batch. They are kept as they came; the message that reads them lends its memory to the next
// one.
struct Elements {
  const char* name;
  std::uint32_t field;
  std::unique_ptr<google::protobuf::MessageLite> reader;
  std::string bytes{};
};

void WriteLength(std::uint64_t length, std::string& bytes) {
  for (; length >= 0x80; length >>= 7U) bytes += static_cast<char>(length | 0x80U);
  bytes += static_cast<char>(length);
}

// Adds what the item says behind its kind; its size within the batch. Nothing when that is no such message.
std::optional<std::size_t> AddElement(Elements& elements, const common::Bytes& item) {
  constexpr std::uint32_t kLengthDelimited = 2;
  const std::size_t size = item.size() - 1;
  if (size > std::numeric_limits<int>::max()) return std::nullopt;
  const std::string_view message(reinterpret_cast<const char*>(item.data()) + 1, size);
  // The parser makes a message of it, which takes several times as long.
  if (!IsPlainMessage(static_cast<Kind>(item[0]), message) &&
      !elements.reader->ParseFromArray(message.data(), static_cast<int>(size))) {
    return std::nullopt;
  }
  const std::size_t before = elements.bytes.size();
  WriteLength(elements.field << 3U | kLengthDelimited, elements.bytes);
  WriteLength(size, elements.bytes);
  elements.bytes.append(message);
  return elements.bytes.size() - before;
}

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

struct DataFormatter::Batch {
  // By Kind.
  std::array<Elements, 5> kinds = {{
      {"directory", wire::IoCEvent::kDirectoryEventFieldNumber, std::make_unique<wire::DirectoryEvent>()},
      {"file", wire::IoCEvent::kFileEventFieldNumber, std::make_unique<wire::FileEvent>()},
      {"loaded-module", wire::IoCEvent::kLoadedModuleFieldNumber, std::make_unique<wire::LoadedModule>()},
      {"network", wire::IoCEvent::kNetworkEventFieldNumber, std::make_unique<wire::NetworkEvent>()},
      {"process", wire::IoCEvent::kProcessEventFieldNumber, std::make_unique<wire::ProcessEvent>()},
  }};
  std::string header{};  // empty until the first Append
  std::string number{};
};

DataFormatter::DataFormatter(const Config& config, std::int64_t sequence_number, common::SqlStorage& snapshot,
                             std::string proc_root)
    : config_(config),
      sequence_number_(sequence_number),
      snapshot_(snapshot),
      proc_root_(std::move(proc_root)),
      batch_(std::make_unique<Batch>()) {}

DataFormatter::~DataFormatter() {
  OnStored();
}

void DataFormatter::Append(const common::Bytes& data) {
  if (state_ != State::Open) throw DataFormatterException("DataFormatter::Append: Invalid state.");
  if (batch_->header.empty()) AddHeader();
  if (data.empty() || data[0] >= batch_->kinds.size()) {
    ZLOG_ERROR("DataFormatter::Append: Ignoring unknown type of event.");
    return;
  }
  Elements& kind = batch_->kinds.at(data[0]);
  const std::optional<std::size_t> added = AddElement(kind, data);
  if (!added) throw DataFormatterException(std::string("Failed to add ") + kind.name + " event to protobuf cache.");
  size_ += *added;
  ZLOG_DEBUG("Added " << kind.name << " event to protobuf cache.");
}

common::Bytes DataFormatter::Finish() {
  if (state_ != State::Open) throw DataFormatterException("DataFormatter::Finish: Invalid state.");
  state_ = State::Closed;
  const std::size_t size = std::exchange(size_, 0);
  if (size > std::numeric_limits<int>::max()) {
    throw DataFormatterException("DataFormatter::Finish: Failed to serialize protobuf message.");
  }
  common::Bytes payload;
  payload.reserve(size);
  const auto add = [&payload](const std::string& text) {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(text.data());
    payload.insert(payload.end(), bytes, bytes + text.size());
  };
  // In the order of the fields' numbers, as a message is serialised.
  add(batch_->header);
  std::array<const Elements*, std::tuple_size_v<decltype(batch_->kinds)>> kinds{};
  std::transform(batch_->kinds.begin(), batch_->kinds.end(), kinds.begin(), [](const Elements& kind) { return &kind; });
  std::sort(kinds.begin(), kinds.end(), [](const auto* one, const auto* other) { return one->field < other->field; });
  for (const Elements* kind : kinds) add(kind->bytes);
  add(batch_->number);
  if (!batch_->header.empty()) {
    finished_number_ = sequence_number_;
    is_number_unsaved_ = true;
  }
  return payload;
}

void DataFormatter::OnStored() {
  if (std::exchange(is_number_unsaved_, false)) SaveSequenceNumber();
}

// The next batch grows in the memory of this one.
void DataFormatter::Clear() {
  for (Elements& kind : batch_->kinds) kind.bytes.clear();
  batch_->header.clear();
  batch_->number.clear();
  size_ = 0;
  state_ = State::Open;
}

void DataFormatter::AddHeader() {
  const std::int64_t boot_time = UpdateBootTime();
  const common::CommonConfig& common = config_.GetCommon();
  wire::IoCEvent header;
  wire::Agent& agent = *header.mutable_agent();
  agent.set_customerid(common::util::ReplaceInvalidUtf8(common.GetCustomerId()));
  agent.set_agentid(common::util::ReplaceInvalidUtf8(common.GetAgentId()));
  agent.set_computername(common::util::ReplaceInvalidUtf8(Poco::Environment::nodeName()));
  agent.set_platform("LINUX");
  agent.set_isquarantine(config_.IsHostQuarantined());
  agent.set_boottime(boot_time);
  header.set_protofileid(Poco::UUIDGenerator::defaultGenerator().createRandom().toString());
  batch_->header = header.SerializeAsString();
  wire::IoCEvent number;
  number.set_sequenceno(static_cast<std::uint64_t>(++sequence_number_));
  batch_->number = number.SerializeAsString();
  size_ = batch_->header.size() + batch_->number.size();
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
