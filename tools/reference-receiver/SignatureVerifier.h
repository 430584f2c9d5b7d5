#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/src/util/Clock.h"
#include "tools/reference-receiver/AgentKeys.h"
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

// The platform's half of docs/PROTOCOL.md, "Signature". Thread-safe.
class SignatureVerifier {
 public:
  // `agents`: lives as long as this. `v3_file`: the keys of version 3 (HmacV3Keys) of the single agent; version 3 is
  // refused without. Throws std::invalid_argument for such a file without a single agent, and what
  // HmacV3Keys::ReadFile throws.
  explicit SignatureVerifier(const AgentKeys& agents, const common::util::Clock& clock = common::util::Clock::Real(),
                             const std::string& v3_file = "");

  // Whom a request claims to come from, by its head alone: what it costs does not depend on the body. Without a fault
  // the agent is known, and nothing is proven yet.
  struct Claim {
    std::string fault;  // why the request must be refused; empty for none
    AgentIdentity sender;
  };
  [[nodiscard]] Claim ReadHead(const SignedRequest& request) const;

  // Why the request must be refused; none when its signature is good.
  [[nodiscard]] std::optional<std::string> FindFault(const SignedRequest& request) const;
  // The headers that sign the answer to a request without a fault; none but for one of version 3 that wants it.
  [[nodiscard]] std::vector<std::pair<std::string, std::string>> SignAnswer(const SignedRequest& request,
                                                                            const std::string& body) const;

 private:
  struct Authorization;
  struct Head;

  [[nodiscard]] bool IsV3(const SignedRequest& request) const;
  [[nodiscard]] Head Read(const SignedRequest& request) const;

  const AgentKeys& agents_;
  const common::util::Clock& clock_;
  std::unique_ptr<const HmacV3Verifier> v3_;
};

}  // namespace zagent::tools
