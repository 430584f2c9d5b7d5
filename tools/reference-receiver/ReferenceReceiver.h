#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tools/reference-receiver/PayloadStore.h"
#include "tools/reference-receiver/ReceiverOptions.h"

namespace zagent::tools {

// The platform's side of an upload, over TLS with a certificate of its own: verifies signatures, undoes the
// compression, hands what it accepted to an UploadSink. Listens on 127.0.0.1 unless told otherwise. Answers from
// construction to destruction; see docs/PROTOCOL.md.
//
//   ReferenceReceiver receiver({.customer_id = "c", .agent_id = "a", .activation_id = "x", .ca_file = "/tmp/ca.pem"});
//   ... upload to receiver.GetUrl() + "/fim", trusting receiver.GetCaFile() ...
//   receiver.GetPayloads().at(0).text;
class ReferenceReceiver {
 public:
  // Throws std::exception for nobody whose uploads to accept, a broken keys file, a port that is taken or a file that
  // cannot be written.
  explicit ReferenceReceiver(ReceiverOptions options);
  ReferenceReceiver(const ReferenceReceiver&) = delete;
  ReferenceReceiver& operator=(const ReferenceReceiver&) = delete;
  ~ReferenceReceiver();

  // "https://127.0.0.1:<port>"
  [[nodiscard]] std::string GetUrl() const;
  [[nodiscard]] const std::string& GetCaFile() const;
  // "http://127.0.0.1:<port>"; empty without a proxy.
  [[nodiscard]] std::string GetProxyUrl() const;

  // "http://127.0.0.1:<port>/<token>/"; empty without a page.
  [[nodiscard]] std::string GetPageUrl() const;

  // With `keep_payloads` only.
  [[nodiscard]] std::vector<AcceptedPayload> GetPayloads() const;
  // Requests that have come whole, whatever became of them.
  [[nodiscard]] unsigned GetRequestCount() const;
  [[nodiscard]] bool WaitForRequests(unsigned count,
                                     std::chrono::milliseconds timeout = std::chrono::seconds(30)) const;
  // TLS connections so far.
  [[nodiscard]] unsigned GetConnectionCount() const;
  // CONNECT requests that the proxy has tunnelled.
  [[nodiscard]] unsigned GetTunnelCount() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zagent::tools
