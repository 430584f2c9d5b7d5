#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/src/http/Uploader.h"

namespace zagent::fakes {

// An uploader that keeps what it was given and answers what a test has scripted: outcomes are taken in order, and the
// last answer of an empty script is success. A held uploader blocks in Upload until Release or Cancel.
class FakeUploader final : public common::Uploader {
 public:
  struct Sent {
    std::string url;
    std::string content_type;
    std::string payload;
    std::optional<common::UploadSource> source;
  };
  struct Answer {
    std::int32_t outcome = kSuccess;
    long http_status = 200;
  };
  static constexpr std::int32_t kCancelled = 100022;

  std::int32_t Upload(const std::string& content_type, const std::vector<unsigned char>& payload) override {
    std::unique_lock lock(mutex_);
    uploads_.push_back({target_, content_type, {payload.begin(), payload.end()}, std::exchange(source_, std::nullopt)});
    Answer answer;
    if (!script_.empty()) {
      answer = script_.front();
      script_.pop_front();
    }
    ++started_;
    changed_.notify_all();
    const int cancels = cancels_;
    changed_.wait(lock, [&] { return !held_ || cancels_ != cancels; });
    if (cancels_ != cancels) answer = {kCancelled, 0};
    http_status_ = answer.http_status;
    correlation_id_ = "upload-" + std::to_string(uploads_.size());
    return answer.outcome;
  }

  void Cancel() override {
    const std::lock_guard lock(mutex_);
    ++cancels_;
    changed_.notify_all();
  }

  [[nodiscard]] std::string GetTarget() const override {
    const std::lock_guard lock(mutex_);
    return target_;
  }
  void SetTarget(const std::string& url) override {
    const std::lock_guard lock(mutex_);
    target_ = url;
  }
  void SetIndexedHeader(unsigned index, const std::string& value) override {
    const std::lock_guard lock(mutex_);
    indexed_headers_[index] = value;
  }
  void SetSource(const common::UploadSource& source) override {
    const std::lock_guard lock(mutex_);
    source_ = source;
  }
  [[nodiscard]] long LastHttpStatus() const override {
    const std::lock_guard lock(mutex_);
    return http_status_;
  }
  [[nodiscard]] std::string LastCorrelationId() const override {
    const std::lock_guard lock(mutex_);
    return correlation_id_;
  }

  void Script(std::deque<Answer> answers) {
    const std::lock_guard lock(mutex_);
    script_ = std::move(answers);
  }
  void Hold() {
    const std::lock_guard lock(mutex_);
    held_ = true;
  }
  void Release() {
    const std::lock_guard lock(mutex_);
    held_ = false;
    changed_.notify_all();
  }
  // Blocks until `count` uploads have begun.
  void AwaitUploads(int count) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return started_ >= count; });
  }
  [[nodiscard]] std::vector<Sent> Uploads() const {
    const std::lock_guard lock(mutex_);
    return uploads_;
  }
  [[nodiscard]] std::map<unsigned, std::string> IndexedHeaders() const {
    const std::lock_guard lock(mutex_);
    return indexed_headers_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Answer> script_;
  std::vector<Sent> uploads_;
  std::map<unsigned, std::string> indexed_headers_;
  std::optional<common::UploadSource> source_;
  std::string target_ = "https://unset";
  std::string correlation_id_;
  long http_status_ = 0;
  int started_ = 0;
  int cancels_ = 0;
  bool held_ = false;
};

}  // namespace zagent::fakes
