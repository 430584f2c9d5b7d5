#pragma once

#include <functional>
#include <memory>

#include "common/src/http/HttpInterceptor.h"
#include "common/src/util/BlockCipher.h"

namespace zagent::common {

// Deciphers the body of a successful response, in as many pieces as it comes. The body of a failed one stays as it is.
class BlockCipherHttpInterceptor final : public HttpInterceptor {
 public:
  // A cipher of its own for every chain: a run belongs to one response.
  using CipherFactory = std::function<std::unique_ptr<util::cipher::BlockCipher>()>;

  // Throws what the factory throws.
  explicit BlockCipherHttpInterceptor(CipherFactory make_cipher);

  [[nodiscard]] std::unique_ptr<HttpInterceptor> Clone() const override;
  // Ends the run of an earlier attempt, but for the next range of the same body.
  void ProcessRequest(std::string& url, std::vector<unsigned char>& payload, HttpHeaders& headers,
                      const std::string& method) override;
  // Throws "Interceptor ProcessResponse failed in DecipherInit" and "... DecipherUpdate".
  ChunkResult ProcessResponseChunk(const std::vector<unsigned char>& chunk,
                                   std::vector<unsigned char>& output) override;
  // Adds what the last block held. Throws "Interceptor ProcessResponse failed in DecipherFinalize".
  void ProcessResponse(const std::string& url, MutableHttpResponse& response) override;
  void OnAttemptEnded(const HttpAttempt& attempt) override;

 private:
  CipherFactory make_cipher_;
  std::unique_ptr<util::cipher::BlockCipher> cipher_;
  bool run_open_ = false;
  bool deciphers_ = true;  // the attempt's body is what was asked for
};

}  // namespace zagent::common
