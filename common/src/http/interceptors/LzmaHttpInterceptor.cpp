#include "common/src/http/interceptors/LzmaHttpInterceptor.h"

#include "common/src/http/MutableHttpResponse.h"

namespace zagent::common {
namespace {

constexpr const char* kEncodingHeader = "Content-Encoding";
constexpr const char* kEncoding = "LZMA";

}  // namespace

LzmaHttpInterceptor::Prepared LzmaHttpInterceptor::Compress(const std::vector<unsigned char>& payload) const {
  Prepared prepared;
  if (payload.empty()) return prepared;
  try {
    prepared.body = compression_->Compress(payload);
  } catch (const std::exception& error) {
    prepared.failure = error.what();
  }
  return prepared;
}

std::unique_ptr<HttpInterceptor> LzmaHttpInterceptor::Clone() const {
  return std::make_unique<LzmaHttpInterceptor>(*this);
}

void LzmaHttpInterceptor::PrepareRequest(const std::vector<unsigned char>& payload) {
  prepared_ = Compress(payload);
}

void LzmaHttpInterceptor::ProcessRequest(std::string&, std::vector<unsigned char>& payload, HttpHeaders& headers,
                                         const std::string&) {
  if (payload.empty()) return;
  // Behind another step the payload may be another one every time.
  const Prepared& prepared = prepared_ ? *prepared_ : Compress(payload);
  if (!prepared.failure.empty()) {
    throw HttpInterceptorException("LzmaHttpInterceptor failed to compress request payload: " + prepared.failure);
  }
  payload = prepared.body;
  headers[kEncodingHeader] = kEncoding;
}

HttpInterceptor::ChunkResult LzmaHttpInterceptor::ProcessResponseChunk(const std::vector<unsigned char>&,
                                                                       std::vector<unsigned char>&) {
  return ChunkResult::Continue;
}

void LzmaHttpInterceptor::ProcessResponse(const std::string&, MutableHttpResponse& response) {
  const auto encoding = response.GetHeaders().find(kEncodingHeader);
  if (encoding == response.GetHeaders().end() || encoding->second != kEncoding) return;
  try {
    response.UpdatePayload(compression_->Decompress(response.GetPayload()));
  } catch (const CompressionException& error) {
    throw HttpInterceptorException(std::string("LzmaHttpInterceptor failed to decompress response payload: ") +
                                   error.what());
  }
}

}  // namespace zagent::common
