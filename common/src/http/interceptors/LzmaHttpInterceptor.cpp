#include "common/src/http/interceptors/LzmaHttpInterceptor.h"

#include "common/src/http/MutableHttpResponse.h"
#include "common/src/http/interceptors/LzmaCompression.h"

namespace zagent::common {
namespace {

constexpr const char* kEncodingHeader = "Content-Encoding";
constexpr const char* kEncoding = "LZMA";

}  // namespace

std::unique_ptr<HttpInterceptor> LzmaHttpInterceptor::Clone() const {
  return std::make_unique<LzmaHttpInterceptor>(*this);
}

void LzmaHttpInterceptor::ProcessRequest(std::string&, std::vector<unsigned char>& payload, HttpHeaders& headers,
                                         const std::string&) {
  if (payload.empty()) return;
  try {
    payload = LzmaCompression().Compress(payload);
  } catch (const CompressionException& error) {
    throw HttpInterceptorException(std::string("LzmaHttpInterceptor failed to compress request payload: ") +
                                   error.what());
  }
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
    response.UpdatePayload(LzmaCompression().Decompress(response.GetPayload()));
  } catch (const CompressionException& error) {
    throw HttpInterceptorException(std::string("LzmaHttpInterceptor failed to decompress response payload: ") +
                                   error.what());
  }
}

}  // namespace zagent::common
