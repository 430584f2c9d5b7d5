#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "common/src/util/KeyStore.h"

namespace zagent::common {

enum class HmacVersion { HmacV1 = 0, HmacV2 = 1, HmacV3 = 2 };

// "V1", "HmacV1" and so on. Throws std::invalid_argument "Invalid HmacVersion: <text>".
HmacVersion ParseHmacVersion(const std::string& text);
// The same for 0 to 2, as an integer of a document. Throws std::invalid_argument "Invalid HmacVersion value: <number>".
HmacVersion ParseHmacVersion(std::int64_t value);
std::string ToString(HmacVersion version);

// The keys of one agent under the names that the signers use: "HmacV1" and "HmacV2" are the secrets, "KIdV1" and
// "KIdV2" the key ids. Both sides of a signature derive them (see docs/PROTOCOL.md, "Keys"): secret of version n =
// lower-case hex of HMAC-SHA-256(constant n, "HmacV<n>;<customer>;<agent>;<activation>"), key id = the agent id.
// Throws std::invalid_argument "Invalid customer id, agent id or activation id" when one is empty.
std::unique_ptr<util::KeyStore> DeriveKeys(const std::string& customer_id, const std::string& agent_id,
                                           const std::string& activation_id);

// How requests are signed: the version and the keys of this agent. Read-only once made, shared by all uploaders.
class HmacConfig {
 public:
  // With the keys that DeriveKeys gives; throws what it throws.
  HmacConfig(const std::string& customer_id, const std::string& agent_id, const std::string& activation_id,
             bool fedramp, HmacVersion version);
  // With keys that somebody else made.
  HmacConfig(std::unique_ptr<util::KeyStore> keys, bool fedramp, HmacVersion version);

  // From a JSON document, with the keys that it holds:
  //
  //   {"hmacVersion": "V3", "fedramp": false, "keys": {"HmacV3": "<secret>", "PlatformPubKey": "-----BEGIN ...", ...}}
  //
  // `hmacVersion` is a version's name or its number; `fedramp` may be absent; the names of keys are those of
  // docs/PROTOCOL.md. Throws std::invalid_argument "Invalid HmacConfig json" when it does not parse, "HmacConfig data
  // malformed" when it has another shape, and what ParseHmacVersion throws. The caller cleanses its text.
  static HmacConfig FromJson(const std::string& json);

  [[nodiscard]] HmacVersion GetVersion() const { return version_; }
  [[nodiscard]] bool IsFedramp() const { return fedramp_; }
  [[nodiscard]] const util::KeyStore& GetKeyStore() const { return *keys_; }

 private:
  std::unique_ptr<util::KeyStore> keys_;
  bool fedramp_;
  HmacVersion version_;
};

}  // namespace zagent::common
