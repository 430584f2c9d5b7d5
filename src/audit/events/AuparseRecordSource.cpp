#include "src/audit/events/AuparseRecordSource.h"

#include <auparse.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>
#include <string_view>

#include "common/src/util/Log.h"

namespace zagent::audit::internal {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

// How the values of a record are read: as the kernel wrote them, or decoded. Records of other types are skipped.
struct Rendering {
  int type;
  bool interpreted;
};
constexpr std::array kRenderings = {
    Rendering{record_type::kSyscall, false},   Rendering{record_type::kPath, false},
    Rendering{record_type::kAnomAbend, false}, Rendering{record_type::kSockaddr, true},
    Rendering{record_type::kCwd, true},        Rendering{record_type::kExecve, true},
    Rendering{record_type::kProctitle, true},
};

const Rendering* FindRendering(int type) {
  const auto* found = std::find_if(kRenderings.begin(), kRenderings.end(),
                                   [type](const Rendering& rendering) { return rendering.type == type; });
  return found != kRenderings.end() ? found : nullptr;
}

// The kernel writes a name in hexadecimal when it holds a blank or a quote: these two are always decoded.
bool IsName(std::string_view field) {
  return field == "name" || field == "exe";
}

}  // namespace

AuparseRecordSource::AuparseRecordSource(auparse_state_t* state) : state_(state) {
  if (state_ == nullptr) throw std::runtime_error("auparse state is NULL");
  records_total_ = auparse_get_num_records(state_);
  if (records_total_ == 0) throw std::runtime_error("auparse state is invalid or has no records");
}

bool AuparseRecordSource::Next(Record& record) {
  record.fields.clear();
  while (records_read_ < records_total_ && record.fields.empty()) {
    MoveToNextRecord();
    record.type = auparse_get_type(state_);
    const Rendering* rendering = FindRendering(record.type);
    if (rendering != nullptr) ReadFields(rendering->interpreted, record);
  }
  return !record.fields.empty();
}

void AuparseRecordSource::MoveToNextRecord() {
  if (records_read_ == 0) {
    if (auparse_first_record(state_) < 1) throw std::runtime_error("Failed to parse first record");
    id_ = static_cast<std::uint32_t>(auparse_get_serial(state_));
    const au_event_t* stamp = auparse_get_timestamp(state_);
    const std::int64_t seconds = stamp != nullptr ? stamp->sec : 0;
    timestamp_ = seconds * kNanosecondsPerSecond;
    ZLOG_DEBUG("Parsing event with ID: " << id_ << " Timestamp: " << seconds);
  } else if (auparse_next_record(state_) < 1) {
    throw std::runtime_error("Failed to parse record number " + std::to_string(records_read_ + 1));
  }
  ++records_read_;
}

void AuparseRecordSource::ReadFields(bool interpreted, Record& record) {
  // An earlier walk leaves the cursor where it stopped: moving to a record does not bring it back.
  if (auparse_first_field(state_) < 1) return;
  do {
    const char* name = auparse_get_field_name(state_);
    if (name == nullptr || *name == '\0') continue;
    const char* value = interpreted || IsName(name) ? auparse_interpret_field(state_) : auparse_get_field_str(state_);
    record.fields[name] = value != nullptr ? value : "";
  } while (auparse_next_field(state_) > 0);
}

}  // namespace zagent::audit::internal
