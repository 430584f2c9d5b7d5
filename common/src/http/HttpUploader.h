#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "common/src/http/HmacConfig.h"
#include "common/src/http/ModuleUrlStateTable.h"
#include "common/src/http/UploadAlarms.h"
#include "common/src/http/Uploader.h"
#include "common/src/http/interceptors/Compression.h"

namespace zagent::common {

class HttpRequest;
class HttpService;

// The names of the protocol headers and how each is filled stand in one table in HttpUploader.cpp. One upload at a
// time; the other calls may come from any thread.
class HttpUploader final : public Uploader {
 public:
  struct Settings {
    std::string url;
    std::string customer_id;               // Z-CUSTID
    std::string agent_id;                  // Z-CLNTID
    std::string agent_version;             // Z-AGENTVER
    std::uint64_t connection_timeout = 0;  // seconds, for each attempt; 0: 30, with a warning
    std::uint64_t request_timeout = 0;     // seconds, for each attempt; 0: 60, with a warning
    std::int64_t retry_interval_seconds = 5;
    std::uint64_t max_attempts = 3;        // beside the first
    std::shared_ptr<UploadAlarms> alarms;  // none: one of its own
    // Which modules go to their authenticated URLs; shared by all uploaders. None: the URL is used as it stands.
    std::shared_ptr<ModuleUrlStateTable> url_states;
    // Of what goes out, in the format LZMA; none: the usual one.
    std::shared_ptr<const Compression> compression;
  };

  HttpUploader(HttpService& service, std::shared_ptr<const HmacConfig> hmac, Settings settings);
  ~HttpUploader() override = default;

  std::int32_t Upload(const std::string& content_type, const std::vector<unsigned char>& payload) override;
  void Cancel() override;
  [[nodiscard]] std::string GetTarget() const override;
  void SetTarget(const std::string& url) override;
  void SetIndexedHeader(unsigned index, const std::string& value) override;
  void SetSource(const UploadSource& source) override;
  [[nodiscard]] long LastHttpStatus() const override;
  [[nodiscard]] std::string LastCorrelationId() const override;

  // The outcome for the HTTP code of a final response; 0 stands for no answer.
  static std::int32_t OutcomeOf(long http_code);

 private:
  struct Job;

  Job PrepareJob(const std::string& content_type, const std::vector<unsigned char>& payload);
  std::int32_t Send(Job job, const std::vector<unsigned char>& payload);
  // `accepted` gets the code of an attempt that was accepted and is followed by another, because its answer broke off.
  std::shared_ptr<HttpRequest> Submit(Job job, const std::vector<unsigned char>& payload,
                                      std::shared_ptr<std::atomic<long>> accepted);

  HttpService& service_;
  std::shared_ptr<const HmacConfig> hmac_;
  mutable std::mutex mutex_;
  Settings settings_;
  std::map<unsigned, std::string> indexed_headers_;
  std::optional<UploadSource> source_;  // of the next upload
  std::shared_ptr<HttpRequest> in_flight_;
  bool cancelled_ = false;  // for ever
  long last_http_status_ = 0;
  std::string last_correlation_id_;
};

}  // namespace zagent::common
