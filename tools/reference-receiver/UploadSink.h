#pragma once

#include <cstddef>
#include <functional>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>

namespace zagent::tools {

// An agent of a customer.
struct AgentIdentity {
  std::string customer_id;
  std::string agent_id;

  bool operator==(const AgentIdentity&) const = default;
};

enum class UploadKind { Fim, Ioc, Status };

// "fim", "ioc", "status"
const char* ToString(UploadKind kind);
// By the path of the request: indicators of compromise and statuses have paths of their own, all else is taken for
// events of files. Nothing is said of the payload.
UploadKind KindOfTarget(const std::string& target);

// An upload that was accepted, uncompressed.
struct AcceptedPayload {
  std::string text;
  std::string target;                          // path and query of the request line
  std::map<std::string, std::string> headers;  // names in lower case, values as they came
  std::string file{};                          // where it was stored; empty without a folder
  AgentIdentity sender{};                      // whose signature it has
  UploadKind kind = UploadKind::Fim;
};

// A sink that cannot ever take this payload, whoever sends it again.
class PayloadTooLargeException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
class UnfitPayloadException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Where an upload goes that was accepted: into files (PayloadStore) or into a stream of a replicated engine
// (StreamSink). To stand on another engine, write a third one.
//
// An upload is known by its header "z-reqid": the same one again is the same upload, and is not kept twice. One without
// is never taken for another. Thread-safe: the threads of all requests call.
class UploadSink {
 public:
  UploadSink() = default;
  UploadSink(const UploadSink&) = delete;
  UploadSink& operator=(const UploadSink&) = delete;
  virtual ~UploadSink() = default;

  // True when the payload is kept, as safely as this sink keeps anything: the sender is told so and forgets it. False
  // when it was already. `on_accepted` (may be empty) is called for what is kept before the next payload is looked at:
  // what it follows comes in the order of the payloads. A sink that others fill as well knows no such order and never
  // calls it.
  //
  // Throws PayloadTooLargeException (the sender gets 413), UnfitPayloadException (400), and any other std::exception
  // when it cannot keep the payload now (503): it does not count as accepted then, and will come again.
  virtual bool Add(const AcceptedPayload& payload, const std::function<void()>& on_accepted) = 0;

  // The largest text in bytes that it takes, as far as that is known: what is larger need not be read at all.
  [[nodiscard]] virtual std::size_t MaxSize() const { return std::numeric_limits<std::size_t>::max(); }

  // Lets an Add in flight fail at once: the receiver is about to go.
  virtual void Stop() {}
};

}  // namespace zagent::tools
