#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/src/util/RsaKey.h"

namespace zagent::tools {

struct SignedRequest;

// What the platform has to know for version 3 of the signature. Keys are in PEM form.
struct HmacV3Keys {
  std::string secret;                // "HmacV3": shared with the agent; may be empty while it has none
  std::string agent_public_key;      // "AgentRsaPubKey"
  std::string platform_private_key;  // "PlatformRsaPvtKey"
  std::string platform_key_id;       // "PlatformKeyID"

  // From a JSON object with the members above. Throws std::runtime_error.
  static HmacV3Keys ReadFile(const std::string& file);
};

// The platform's half of docs/PROTOCOL.md, "Version 3", for one agent. Thread-safe.
class HmacV3Verifier {
 public:
  // Throws util::RsaException for keys that are none.
  explicit HmacV3Verifier(HmacV3Keys keys);

  // Why the request must be refused; none when its signature is good. Its time is not looked at.
  [[nodiscard]] std::optional<std::string> FindFault(const SignedRequest& request) const;
  // The headers of the answer to a request without a fault, over the answer's body; none when it wants no signature.
  [[nodiscard]] std::vector<std::pair<std::string, std::string>> SignAnswer(const SignedRequest& request,
                                                                            const std::string& body,
                                                                            const std::string& timestamp) const;

 private:
  [[nodiscard]] std::string SigningKey(const std::vector<std::string>& parts) const;

  const HmacV3Keys keys_;
  const common::util::RsaKey agent_key_;
  const common::util::RsaKey platform_key_;
  const std::string agent_key_id_;
};

}  // namespace zagent::tools
