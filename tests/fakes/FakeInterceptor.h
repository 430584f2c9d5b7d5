#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/src/http/HttpInterceptor.h"
#include "common/src/http/MutableHttpResponse.h"

namespace zagent::fakes {

// Notes its calls as "<name>:<step>" in a list that several share, and does what a test tells it.
class FakeInterceptor final : public common::HttpInterceptor {
 public:
  FakeInterceptor(std::string name, std::vector<std::string>& calls) : name_(std::move(name)), calls_(&calls) {}

  std::function<void(std::vector<unsigned char>& payload, common::HttpHeaders& headers)> on_request;
  std::function<ChunkResult(const std::vector<unsigned char>& chunk, std::vector<unsigned char>& output)> on_chunk;
  std::function<void(common::MutableHttpResponse& response)> on_response;
  std::function<void(const std::vector<unsigned char>& payload)> on_prepare;
  std::function<void(const common::HttpAttempt& attempt)> on_attempt_ended;

  [[nodiscard]] std::unique_ptr<HttpInterceptor> Clone() const override {
    return std::make_unique<FakeInterceptor>(*this);
  }
  void ProcessRequest(std::string&, std::vector<unsigned char>& payload, common::HttpHeaders& headers,
                      const std::string& method) override {
    calls_->push_back(name_ + ":request " + method);
    if (on_request) on_request(payload, headers);
  }
  ChunkResult ProcessResponseChunk(const std::vector<unsigned char>& chunk,
                                   std::vector<unsigned char>& output) override {
    calls_->push_back(name_ + ":chunk");
    return on_chunk ? on_chunk(chunk, output) : ChunkResult::Continue;
  }
  void ProcessResponse(const std::string&, common::MutableHttpResponse& response) override {
    calls_->push_back(name_ + ":response");
    if (on_response) on_response(response);
  }
  // These two are noted only by who listens for them.
  void PrepareRequest(const std::vector<unsigned char>& payload) override {
    if (on_prepare) on_prepare(payload);
  }
  void OnAttemptEnded(const common::HttpAttempt& attempt) override {
    if (on_attempt_ended) on_attempt_ended(attempt);
  }

 private:
  std::string name_;
  std::vector<std::string>* calls_;
};

}  // namespace zagent::fakes
