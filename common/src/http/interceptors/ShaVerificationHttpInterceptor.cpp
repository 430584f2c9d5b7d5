#include "common/src/http/interceptors/ShaVerificationHttpInterceptor.h"

#include <Poco/Exception.h>
#include <Poco/SHA2Engine.h>

#include "common/src/http/MutableHttpResponse.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

std::string Sha256Of(const std::vector<unsigned char>& bytes) {
  try {
    Poco::SHA2Engine engine(Poco::SHA2Engine::SHA_256);
    engine.update(bytes.data(), bytes.size());
    return Poco::DigestEngine::digestToHex(engine.digest());
  } catch (const Poco::Exception&) {
    throw HttpInterceptorException("Hash calculation error.");
  }
}

}  // namespace

std::unique_ptr<HttpInterceptor> ShaVerificationHttpInterceptor::Clone() const {
  return std::make_unique<ShaVerificationHttpInterceptor>(*this);
}

void ShaVerificationHttpInterceptor::ProcessRequest(std::string&, std::vector<unsigned char>&, HttpHeaders&,
                                                    const std::string&) {}

HttpInterceptor::ChunkResult ShaVerificationHttpInterceptor::ProcessResponseChunk(const std::vector<unsigned char>&,
                                                                                  std::vector<unsigned char>&) {
  return ChunkResult::Continue;
}

void ShaVerificationHttpInterceptor::ProcessResponse(const std::string&, MutableHttpResponse& response) {
  const std::vector<unsigned char>* payload = nullptr;
  try {
    payload = &response.GetPayload();
  } catch (const HttpException& error) {
    throw HttpInterceptorException(std::string("Invalid access exception: ") + error.what());
  }
  const std::string actual = Sha256Of(*payload);
  if (actual == expected_hash_) return;
  ZLOG_ERROR("actualHash value: " << actual << ", expectedHash value: " << expected_hash_);
  throw HttpInterceptorException("Hash mismatch.");
}

}  // namespace zagent::common
