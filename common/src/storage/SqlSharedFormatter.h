#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "common/src/storage/SqlDataFormatter.h"

namespace zagent::common::internal {

// One formatter for the threads of a storage: one question or one row at a time.
class SqlSharedFormatter {
 public:
  explicit SqlSharedFormatter(std::unique_ptr<SqlDataFormatter> formatter) : formatter_(std::move(formatter)) {}

  // The answer of question(formatter), or what it throws.
  template <typename Question>
  auto Ask(Question question) {
    const std::lock_guard lock(mutex_);
    return question(*formatter_);
  }

  // The row that `fill` builds. When `fill` throws, its half of a row is dropped: it must not stop the next one.
  Bytes BuildRow(const std::function<void(SqlDataFormatter&)>& fill) {
    const std::lock_guard lock(mutex_);
    formatter_->Start();
    try {
      fill(*formatter_);
    } catch (...) {
      (void)formatter_->Finish();
      throw;
    }
    return formatter_->Finish();
  }

 private:
  std::mutex mutex_;
  const std::unique_ptr<SqlDataFormatter> formatter_;
};

}  // namespace zagent::common::internal
