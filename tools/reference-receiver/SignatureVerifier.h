#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/src/util/Clock.h"
#include "common/src/util/KeyStore.h"
#include "tools/reference-receiver/HmacV3Verifier.h"

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
  // `v3_file`: the keys of version 3 (HmacV3Keys), which is refused without. Throws std::invalid_argument for an empty
  // id, and what HmacV3Keys::ReadFile throws.
  SignatureVerifier(const std::string& customer_id, const std::string& agent_id, const std::string& activation_id,
                    const common::util::Clock& clock = common::util::Clock::Real(), const std::string& v3_file = "");

  // Why the request must be refused; none when its signature is good.
  [[nodiscard]] std::optional<std::string> FindFault(const SignedRequest& request) const;
  // The headers that sign the answer to a request without a fault; none but for one of version 3 that wants it.
  [[nodiscard]] std::vector<std::pair<std::string, std::string>> SignAnswer(const SignedRequest& request,
                                                                            const std::string& body) const;

 private:
  [[nodiscard]] static bool IsV3(const SignedRequest& request);

  std::unique_ptr<common::util::KeyStore> keys_;
  const common::util::Clock& clock_;
  std::unique_ptr<const HmacV3Verifier> v3_;
};

}  // namespace zagent::tools
