#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zagent::common {

// A proxy as somebody wrote it: "[http://|https://][user:password@]host[:port]". Blanks around it are left out.
// None for what cannot be one: an empty text, another scheme, no host, a blank or a byte that is no printable ASCII in
// it, more than 2,048 characters.
std::optional<std::string> ParseProxy(std::string_view text);

// True for "direct://" and the schemes of SOCKS, which the system's settings may name and this client does not speak.
bool IsDirectOrSocks(std::string_view text);

// The value of a stored proxy: base64 of 16 bytes of initial vector and the text, enciphered with AES-256 in CBC mode
// under the program's key (docs/CONFIGURATION.md shows how to make one). It hides credentials from a casual look, not
// from somebody who has the program. What is no such value is used as it stands, with a debug line
// "Failed to decrypt proxy. Using proxy string: <the proxy, its credentials masked>".
std::string DecipherProxy(const std::string& value);

namespace internal {

// PBKDF2 with HMAC-SHA-256; password and salt in base64. 32 bytes, or none with an Error line
// "Decryption key generation api failed".
std::string DeriveProxyKey(const std::string& password, const std::string& salt, int iterations);

}  // namespace internal
}  // namespace zagent::common
