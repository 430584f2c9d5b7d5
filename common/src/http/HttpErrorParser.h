#pragma once

#include <optional>
#include <span>
#include <string>

#include "common/src/http/HttpError.h"
#include "common/src/http/HttpPostProcessor.h"

namespace zagent::common {

// Reads why the platform refused a request, tells the log, and has the action executed that the answer calls for. Sees
// every request of the service when it is finished; what is no error, or a proxy's own, passes.
//
// The body comes from outside: it is parsed iteratively, no more than 64 KiB of it, and the log gets its beginning.
class HttpErrorParser final : public HttpPostProcessor {
 public:
  static constexpr std::size_t kMaxParsedBody = 65'536;
  // Of a body that is shown in base64.
  static constexpr std::size_t kMaxLoggedBody = 4096;

  // Passes an answer over that asks for no action.
  HttpErrorParser() { SetActionHandler(ActionWord(0), {}); }

  void Process(const HttpRequest& request) override;

  // The record of an error body: a JSON object whose members "action" and "errorCode" are integers. A member that is
  // absent or of another type keeps its default. None, with a log line, for a body that is empty or no JSON object.
  static std::optional<HttpErrorRecord> ParseErrorPayload(const std::string& url, long http_status,
                                                          std::span<const unsigned char> body);

  // 400 to 599.
  [[nodiscard]] static bool IsErrorStatus(long http_status);
};

}  // namespace zagent::common
