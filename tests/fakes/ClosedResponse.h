#pragma once

#include <vector>

#include "common/src/http/HttpException.h"
#include "common/src/http/MutableHttpResponse.h"

namespace zagent::fakes {

// A response whose body cannot be had, such as one whose file is gone.
class ClosedResponse final : public common::MutableHttpResponse {
 public:
  using Bytes = std::vector<unsigned char>;

  [[nodiscard]] const Bytes& GetPayload() const override { throw common::HttpException("the file is gone"); }
  void UpdatePayload(Bytes /*payload*/) override {}
  void AppendPayload(Bytes /*payload*/) {}
  void ClearPayload() {}
  void KeepErrorPayload(Bytes /*payload*/) {}
};

}  // namespace zagent::fakes
