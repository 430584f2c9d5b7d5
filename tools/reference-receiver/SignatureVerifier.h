#pragma once

#include <memory>
#include <optional>
#include <string>

#include "common/src/util/Clock.h"
#include "common/src/util/KeyStore.h"

namespace zagent::tools {

// What of a request its signature speaks of, as it came over the wire.
struct SignedRequest {
  std::string method;
  std::string target;                       // path and query of the request line
  std::string body;                         // still compressed
  std::optional<std::string> content_type;  // none: no such header
  std::optional<std::string> authorization;
  std::optional<std::string> timestamp;
};

// The platform's half of docs/PROTOCOL.md, "Signature", for one agent.
class SignatureVerifier {
 public:
  // Throws std::invalid_argument for an empty id.
  SignatureVerifier(const std::string& customer_id, const std::string& agent_id, const std::string& activation_id,
                    const common::util::Clock& clock = common::util::Clock::Real());

  // Why the request must be refused; none when its signature is good.
  [[nodiscard]] std::optional<std::string> FindFault(const SignedRequest& request) const;

 private:
  std::unique_ptr<common::util::KeyStore> keys_;
  const common::util::Clock& clock_;
};

}  // namespace zagent::tools
