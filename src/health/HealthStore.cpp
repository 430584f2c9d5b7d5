#include "src/health/HealthStore.h"

#include <stdexcept>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlStorageFactory.h"
#include "common/src/util/Log.h"
#include "src/health/AHSSqlDataFormatter.h"
#include "src/health/FieldsText.h"
#include "src/health/LogPrefix.h"

namespace zagent::health {
namespace {

using common::SqlStorage;

std::string NameOf(StatusCode code, const std::string& context_id) {
  return std::to_string(static_cast<std::int64_t>(code)) + " of " + context_id;
}

// The order in which rows were written.
std::string SentRowsInOrder() {
  AHSSqlDataFormatter::Range range;
  range.sort_column = "rowid";
  return AHSSqlDataFormatter::Condition(range);
}

}  // namespace

HealthStore::HealthStore(std::string directory, std::string name, common::util::Clock& clock)
    : directory_(std::move(directory)), name_(std::move(name)), clock_(clock) {
  const std::lock_guard lock(mutex_);
  try {
    Open();
  } catch (const std::exception& error) {
    ZLOG_ERROR("AHS: Failed to open the database of statuses: " << error.what());
  }
}

HealthStore::~HealthStore() {
  const std::lock_guard lock(mutex_);
  Flush();
  if (!waiting_.empty()) ZLOG_WARNING("AHS: " << waiting_.size() << " statuses could not be written");
}

void HealthStore::Report(HealthStatus status) noexcept {
  try {
    const std::lock_guard lock(mutex_);
    Keep(std::move(status));
    Flush();
  } catch (const std::exception& error) {
    ZLOG_ERROR("AHS: Failed to keep a status: " << error.what());
  }
}

void HealthStore::CountRefused(std::uint64_t documents) noexcept {
  refused_documents_ += documents;
}

void HealthStore::CountRemovedFile(std::uint64_t bytes) noexcept {
  ++removed_files_;
  removed_bytes_ += bytes;
}

void HealthStore::CountDropped(std::uint64_t events) noexcept {
  dropped_events_ += events;
}

std::uint64_t HealthStore::RefusedDocuments() const {
  return refused_documents_;
}

std::uint64_t HealthStore::RemovedFiles() const {
  return removed_files_;
}

std::uint64_t HealthStore::RemovedBytes() const {
  return removed_bytes_;
}

std::uint64_t HealthStore::DroppedEvents() const {
  return dropped_events_;
}

std::uint64_t HealthStore::GetWaitingBytes() const {
  const std::lock_guard lock(mutex_);
  std::uint64_t bytes = 0;
  for (const AHSRecord& record : waiting_) {
    bytes += sizeof record + record.time.size() + record.context_id.size() + record.additional_fields.size();
  }
  return bytes;
}

void HealthStore::Keep(HealthStatus status) {
  if (!IsNews(status)) return;
  ZLOG_DEBUG("AHS: Status " << NameOf(status.code, status.context_id) << ": "
                            << static_cast<std::int64_t>(status.state));
  AHSRecord record;
  record.time = common::util::FormatUtc(common::util::ToNanoseconds(clock_.Now()));
  record.context_id = ReplaceInvalidText(status.context_id);
  record.status_code = static_cast<std::int64_t>(status.code);
  record.state = static_cast<std::int64_t>(status.state);
  record.additional_fields = WriteFields(status.fields, status.details);
  if (waiting_.size() >= kMaxWaiting) {
    ZLOG_WARNING("AHS: More than " << kMaxWaiting << " statuses wait: the oldest is dropped");
    waiting_.pop_front();
  }
  waiting_.push_back(std::move(record));
  if (known_.size() >= kMaxContexts) known_.clear();
  known_[{status.code, std::move(status.context_id)}] = {status.state, std::move(status.fields)};
}

bool HealthStore::IsNews(const HealthStatus& status) {
  const auto known = known_.find({status.code, status.context_id});
  return known == known_.end() || known->second.first != status.state || known->second.second != status.fields;
}

void HealthStore::Open() {
  if (storage_ && !storage_->IsDamaged()) return;
  storage_.reset();
  storage_ = common::OpenSqlStorage(
      directory_, name_, [this] { return std::make_unique<AHSSqlDataFormatter>(directory_, name_); }, nullptr,
      SqlStorage::Caching::Off);
}

void HealthStore::Flush() {
  if (waiting_.empty() || is_batch_away_) return;
  try {
    Open();
    if (owes_delete_) DeleteSent();
    Write();
  } catch (const std::exception& error) {
    ZLOG_ERROR("AHS: Failed to write " << waiting_.size() << " statuses: " << error.what());
  }
}

void HealthStore::Write() {
  SqlStorage::Rows rows;
  rows.reserve(waiting_.size());
  for (const AHSRecord& record : waiting_) {
    rows.emplace_back("", storage_->MakeRow(record.time, record.context_id, record.status_code, record.state,
                                            record.additional_fields));
  }
  storage_->Write(AHSSqlDataFormatter::kTable, rows);
  waiting_.clear();
  TrimRows();
}

void HealthStore::TrimRows() {
  const std::int64_t rows = CountRows();
  if (rows <= kMaxRows) return;
  ZLOG_WARNING("AHS: More than " << kMaxRows << " statuses could not be sent yet: the oldest are dropped");
  storage_->Execute(AHSSqlDataFormatter::DeleteOldest(rows - kMaxRows));
}

std::int64_t HealthStore::CountRows() {
  const std::string for_upload = AHSSqlDataFormatter::Condition({});
  const common::Bytes row = storage_->Query(AHSSqlDataFormatter::Count(for_upload)).Next();
  return common::Serializer(row).GetInteger();
}

HealthStore::Batch HealthStore::TakeBatch() {
  const std::lock_guard lock(mutex_);
  if (is_batch_away_) throw std::logic_error("HealthStore: a batch is away already");
  Open();
  if (owes_delete_) DeleteSent();
  Flush();
  std::vector<AHSRecord> rows = ReadRows();
  is_batch_away_ = true;
  return {*this, std::move(rows)};
}

std::vector<AHSRecord> HealthStore::ReadRows() {
  const std::string select =
      AHSSqlDataFormatter(directory_, name_).Select(AHSSqlDataFormatter::kTable, SentRowsInOrder());
  common::SqlRowIterator rows = storage_->Query(select);
  std::vector<AHSRecord> records;
  for (common::Bytes row = rows.Next(); !row.empty(); row = rows.Next()) records.push_back(AHSRecord::FromRow(row));
  return records;
}

void HealthStore::DeleteSent() {
  storage_->Delete(AHSSqlDataFormatter::kTable, AHSSqlDataFormatter::Condition({}));
  owes_delete_ = false;
}

void HealthStore::Batch::Delete() {
  const std::lock_guard lock(store_.mutex_);
  store_.owes_delete_ = true;
  try {
    store_.DeleteSent();
  } catch (const std::exception& error) {
    ZLOG_ERROR("AHS: Failed to delete the statuses that were sent: " << error.what());
  }
}

HealthStore::Batch::~Batch() {
  const std::lock_guard lock(store_.mutex_);
  store_.is_batch_away_ = false;
  store_.Flush();
}

}  // namespace zagent::health
