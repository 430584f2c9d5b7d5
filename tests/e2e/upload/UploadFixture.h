#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/src/http/HttpService.h"
#include "common/src/http/HttpUploader.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"
#include "tools/reference-receiver/ReferenceReceiver.h"

namespace zagent::e2e {

constexpr const char* kCustomer = "7a3c1f0e-1111-4222-8333-444455556666";
constexpr const char* kAgent = "0b9d8e7f-aaaa-4bbb-8ccc-ddddeeeeffff";
constexpr const char* kActivation = "c0ffee00-1234-4567-89ab-cdef01234567";

// The daemon's client on one side, the reference receiver on the other, and what the receiver printed.
class UploadFixture : public ::testing::Test {
 protected:
  using Bytes = std::vector<unsigned char>;

  tools::ReceiverOptions Options() {
    tools::ReceiverOptions options;
    options.customer_id = kCustomer;
    options.agent_id = kAgent;
    options.activation_id = kActivation;
    options.ca_file = folder_ / "ca.pem";
    options.keep_payloads = true;
    options.print = [this](const std::string& line) {
      const std::lock_guard lock(mutex_);
      lines_.push_back(line);
    };
    return options;
  }

  void StartReceiver(tools::ReceiverOptions options) {
    receiver_ = std::make_unique<tools::ReferenceReceiver>(std::move(options));
    StartService(receiver_->GetCaFile());
  }
  void StartService(const std::string& ca_file) {
    service_ = std::make_unique<common::HttpService>(ca_file);
    service_->Start();
  }

  static std::shared_ptr<const common::HmacConfig> Keys(common::HmacVersion version,
                                                        const std::string& activation = kActivation) {
    return std::make_shared<common::HmacConfig>(kCustomer, kAgent, activation, false, version);
  }

  std::unique_ptr<common::HttpUploader> Uploader(common::HmacVersion version = common::HmacVersion::HmacV2) {
    return UploaderWith(Keys(version));
  }
  std::unique_ptr<common::HttpUploader> UploaderWith(std::shared_ptr<const common::HmacConfig> keys) {
    common::HttpUploader::Settings settings;
    settings.url = receiver_->GetUrl() + "/v1/fim?agent=" + kAgent;
    settings.customer_id = kCustomer;
    settings.agent_id = kAgent;
    settings.agent_version = "1.0.0";
    settings.connection_timeout = 10;
    settings.request_timeout = request_timeout_;
    settings.retry_interval_seconds = 0;
    settings.max_attempts = max_attempts_;
    return std::make_unique<common::HttpUploader>(*service_, std::move(keys), settings);
  }

  std::int32_t Upload(const std::string& text) { return Uploader()->Upload("application/json", BytesOf(text)); }

  static Bytes BytesOf(const std::string& text) { return {text.begin(), text.end()}; }

  std::vector<std::string> Lines() {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

  fakes::TempFolder folder_;
  fakes::LogCapture log_;
  std::uint64_t request_timeout_ = 30;
  std::uint64_t max_attempts_ = 3;
  std::mutex mutex_;
  std::vector<std::string> lines_;
  std::unique_ptr<tools::ReferenceReceiver> receiver_;
  std::unique_ptr<common::HttpService> service_;
};

}  // namespace zagent::e2e
