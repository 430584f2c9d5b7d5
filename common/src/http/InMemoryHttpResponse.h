#pragma once

#include "common/src/http/MutableHttpResponse.h"

namespace zagent::common {

// A response whose body stays in memory.
class InMemoryHttpResponse final : public MutableHttpResponse {
 public:
  [[nodiscard]] const std::vector<unsigned char>& GetPayload() const override { return payload_; }
  void UpdatePayload(std::vector<unsigned char> payload) override;
  // Throws HttpException "Response payload is larger than <n> bytes".
  void AppendPayload(std::vector<unsigned char> payload) override;
  void ClearPayload() override { UpdatePayload({}); }
  void KeepErrorPayload(std::vector<unsigned char> payload) override { UpdatePayload(std::move(payload)); }

 private:
  std::vector<unsigned char> payload_;
};

}  // namespace zagent::common
