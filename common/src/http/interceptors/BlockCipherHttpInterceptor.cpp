#include "common/src/http/interceptors/BlockCipherHttpInterceptor.h"

#include "common/src/http/MutableHttpResponse.h"

namespace zagent::common {
namespace {

using util::cipher::BlockCipherException;

bool IsLaterRange(const HttpHeaders& headers) {
  const auto range = headers.find("Range");
  return range != headers.end() && !range->second.starts_with("bytes=0-");
}

}  // namespace

BlockCipherHttpInterceptor::BlockCipherHttpInterceptor(CipherFactory make_cipher)
    : make_cipher_(std::move(make_cipher)), cipher_(make_cipher_()) {}

std::unique_ptr<HttpInterceptor> BlockCipherHttpInterceptor::Clone() const {
  return std::make_unique<BlockCipherHttpInterceptor>(make_cipher_);
}

void BlockCipherHttpInterceptor::ProcessRequest(std::string&, std::vector<unsigned char>&, HttpHeaders& headers,
                                                const std::string&) {
  if (!IsLaterRange(headers)) run_open_ = false;
  deciphers_ = true;
}

void BlockCipherHttpInterceptor::OnAttemptEnded(const HttpAttempt& attempt) {
  const bool is_whole = attempt.status == HttpStatus::Success;
  if (is_whole) run_open_ = false;
  deciphers_ = is_whole || attempt.status == HttpStatus::PartialSuccess;
}

HttpInterceptor::ChunkResult BlockCipherHttpInterceptor::ProcessResponseChunk(const std::vector<unsigned char>& chunk,
                                                                              std::vector<unsigned char>& output) {
  if (!deciphers_) return ChunkResult::Continue;
  try {
    if (!run_open_) cipher_->DecipherInit();
    run_open_ = true;
  } catch (const BlockCipherException&) {
    throw HttpInterceptorException("Interceptor ProcessResponse failed in DecipherInit");
  }
  try {
    output = cipher_->DecipherUpdate(chunk);
  } catch (const BlockCipherException&) {
    run_open_ = false;
    throw HttpInterceptorException("Interceptor ProcessResponse failed in DecipherUpdate");
  }
  return ChunkResult::Replaced;
}

void BlockCipherHttpInterceptor::ProcessResponse(const std::string&, MutableHttpResponse& response) {
  if (!run_open_) return;  // no chunk came
  run_open_ = false;
  try {
    const std::vector<unsigned char> last = cipher_->DecipherFinalize();
    if (last.empty()) return;
    std::vector<unsigned char> payload = response.GetPayload();
    payload.insert(payload.end(), last.begin(), last.end());
    response.UpdatePayload(std::move(payload));
  } catch (const BlockCipherException&) {
    throw HttpInterceptorException("Interceptor ProcessResponse failed in DecipherFinalize");
  }
}

}  // namespace zagent::common
