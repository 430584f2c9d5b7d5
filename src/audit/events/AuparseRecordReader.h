#pragma once

#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "src/audit/events/AuparseRecordSource.h"
#include "src/audit/events/ValueStore.h"

namespace zagent::audit::internal {

// libauparse takes nothing any more.
class AuparseFailure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Reads single records through libauparse, in its feed mode and raw escape mode: those whose fields are more than plain
// words. One thread at a time.
class AuparseRecordReader {
 public:
  // Throws AuparseFailure "Failed to initialize auparse".
  AuparseRecordReader();
  AuparseRecordReader(const AuparseRecordReader&) = delete;
  AuparseRecordReader& operator=(const AuparseRecordReader&) = delete;
  ~AuparseRecordReader();

  // Puts the wanted fields of one line into the record, none when auparse takes the line for no record. The values lie
  // in the store. Throws AuparseFailure "Failed to feed to auparse", and std::runtime_error for a record that
  // cannot be read.
  void Read(std::string_view line, Record& record, ValueStore& values);

 private:
  struct Destroyer {
    void operator()(auparse_state_t* state) const;
  };
  static void OnAuparseEvent(auparse_state_t* state, int kind, void* self) noexcept;
  void Keep(auparse_state_t* state);

  std::unique_ptr<auparse_state_t, Destroyer> state_;
  AuparseRecordSource source_;
  std::string fed_;           // the line with its end
  Record* record_ = nullptr;  // to be filled by the callback
  ValueStore* values_ = nullptr;
  std::exception_ptr failure_;
};

}  // namespace zagent::audit::internal
