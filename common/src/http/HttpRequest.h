#pragma once

#include <string>

#include "common/src/http/HttpResponse.h"

namespace zagent::common {

// One logical exchange, across all its attempts: the face of those who wait. Thread-safe.
class HttpRequest {
 public:
  enum class State {
    InFlight = 0,
    Failed = 1,     // an error became final, or the response could not be processed
    Cancelled = 3,  // there is no response
    Completed = 4,
    WaitingForRetry = 5,
  };

  HttpRequest() = default;
  HttpRequest(const HttpRequest&) = delete;
  HttpRequest& operator=(const HttpRequest&) = delete;

  // The order of the virtual operations is part of the interface.

  // As the caller gave it.
  [[nodiscard]] virtual const std::string& GetUrl() const = 0;
  [[nodiscard]] virtual State GetState() const = 0;
  // Waits for Failed, Cancelled or Completed. The response lives as long as the request.
  // Throws HttpException "Response isn't available for cancelled HTTP request for <url>", and on the thread of the
  // service, in a callback or an interceptor, instead of waiting for itself: "Cannot wait for a response on the thread
  // of the HTTP service: <url>".
  virtual const HttpResponse& GetResponse() const = 0;
  // Ends the exchange as Cancelled as soon as the HTTP worker sees it; a finished one stays what it is.
  virtual void Cancel() = 0;
  virtual ~HttpRequest() = default;
  [[nodiscard]] virtual HttpMethod GetMethod() const = 0;
};

}  // namespace zagent::common
