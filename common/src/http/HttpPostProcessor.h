#pragma once

#include <functional>
#include <map>
#include <string>

#include "common/src/http/HttpError.h"

namespace zagent::common {

class HttpRequest;

// What is done about a finished request beside handing it to whoever waits. Keeps the handlers of the actions that an
// answer may call for; who finds out which action that is derives from it.
class HttpPostProcessor {
 public:
  using ActionHandler = std::function<void(const HttpErrorRecord& record)>;

  HttpPostProcessor() = default;
  HttpPostProcessor(const HttpPostProcessor&) = delete;
  HttpPostProcessor& operator=(const HttpPostProcessor&) = delete;
  virtual ~HttpPostProcessor() = default;

  // Called once for a request that has a final response (GetResponse does not wait), behind its own callback, on the
  // HTTP worker and without any lock of the request or the service: it may queue requests, but must not wait for one.
  // Shared by all requests of the service. The outcome is fixed already; an exception is logged and changes nothing.
  virtual void Process(const HttpRequest& request) = 0;

  // Handlers run on the HTTP worker. One that is empty means that the action is to be passed over. Before the service
  // has the processor.
  void SetActionHandler(const std::string& word, ActionHandler handler) { handlers_[word] = std::move(handler); }

 protected:
  // Calls the handler of the record's action. Never throws: what a handler throws is logged.
  void ExecuteAction(const HttpErrorRecord& record) const noexcept;

 private:
  void CallHandler(const HttpErrorRecord& record) const;

  std::map<std::string, ActionHandler> handlers_;
};

}  // namespace zagent::common
