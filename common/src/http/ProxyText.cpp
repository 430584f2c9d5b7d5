#include "common/src/http/ProxyText.h"

#include <openssl/evp.h>
#include <strings.h>

#include <algorithm>
#include <array>

#include "common/src/http/HttpProxy.h"
#include "common/src/util/Base64.h"
#include "common/src/util/BlockCipherEvp.h"
#include "common/src/util/Cleanse.h"
#include "common/src/util/Concealment.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

constexpr std::size_t kMaxProxyText = 2048;
constexpr std::size_t kBlockSize = 16;
constexpr int kKeySize = 32;
constexpr int kIterations = 10'000;
constexpr unsigned char kConstantByte = 0x3c;
// Concealed base64 texts.
constexpr const char* kPassword = "RWZmeGp3fm5aW0lKc2l0fXleXRNVCGZ4W3JpCmxMZV4=";
constexpr const char* kSalt = "WmgIa116cAh0XgUOeVJ+dG8FcWhvSwEB";

constexpr std::array<const char*, 2> kSchemes = {"http://", "https://"};
constexpr std::array<const char*, 6> kPassedOver = {"direct://", "socks://",   "socks4://",
                                                    "socks5://", "socks4a://", "socks5h://"};

bool HasPrefix(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() && strncasecmp(text.data(), prefix.data(), prefix.size()) == 0;
}

bool IsPrintable(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

std::string_view Trim(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

// Behind the scheme and the credentials, before port and path.
std::string_view HostOf(std::string_view text) {
  for (const char* scheme : kSchemes) {
    if (HasPrefix(text, scheme)) {
      text.remove_prefix(std::string_view(scheme).size());
      break;
    }
  }
  const std::size_t at = text.rfind('@');
  if (at != std::string_view::npos) text.remove_prefix(at + 1);
  if (text.starts_with('[')) return text.substr(1, text.find(']') == std::string_view::npos ? 0 : text.find(']') - 1);
  return text.substr(0, text.find_first_of(":/"));
}

bool HasForeignScheme(std::string_view text) {
  const std::size_t letters =
      text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789+.-");
  if (letters == std::string_view::npos || text.substr(letters, 3) != "://") return false;
  return std::none_of(kSchemes.begin(), kSchemes.end(), [&](const char* scheme) { return HasPrefix(text, scheme); });
}

// Derived once a process.
const std::string& ProxyKey() {
  static const std::string key =
      internal::DeriveProxyKey(util::Reveal(kPassword, kConstantByte), util::Reveal(kSalt, kConstantByte), kIterations);
  return key;
}

std::optional<std::string> TryToDecipher(const std::string& value) {
  try {
    const std::string bytes = util::Base64Decode(value);
    if (bytes.size() < 2 * kBlockSize || bytes.size() > 2 * kMaxProxyText) return std::nullopt;
    const std::string& key = ProxyKey();
    util::cipher::BlockCipherEvp cipher("aes-256-cbc", {key.begin(), key.end()},
                                        {bytes.begin(), bytes.begin() + kBlockSize});
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto plain = cipher.Decipher({data + kBlockSize, bytes.size() - kBlockSize});
    std::string text(plain.begin(), plain.end());
    // One wrong text in 256 has good padding.
    if (text.empty() || !IsPrintable(text)) return std::nullopt;
    return text;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace

std::optional<std::string> ParseProxy(std::string_view text) {
  text = Trim(text);
  if (text.size() > kMaxProxyText || !IsPrintable(text) || HasForeignScheme(text) || HostOf(text).empty()) {
    return std::nullopt;
  }
  return std::string(text);
}

bool IsDirectOrSocks(std::string_view text) {
  return std::any_of(kPassedOver.begin(), kPassedOver.end(),
                     [&](const char* scheme) { return HasPrefix(text, scheme); });
}

std::string DecipherProxy(const std::string& value) {
  if (std::optional<std::string> text = TryToDecipher(value)) return *std::move(text);
  ZLOG_DEBUG("Failed to decrypt proxy. Using proxy string: " << MaskCredentials(value));
  return value;
}

std::string internal::DeriveProxyKey(const std::string& password, const std::string& salt, int iterations) {
  try {
    std::string password_bytes = util::Base64Decode(password);
    const util::ScopedCleanse cleanse(password_bytes);
    const std::string salt_bytes = util::Base64Decode(salt);
    std::string key(kKeySize, '\0');
    if (PKCS5_PBKDF2_HMAC(password_bytes.data(), static_cast<int>(password_bytes.size()),
                          reinterpret_cast<const unsigned char*>(salt_bytes.data()),
                          static_cast<int>(salt_bytes.size()), iterations, EVP_sha256(), kKeySize,
                          reinterpret_cast<unsigned char*>(key.data())) == 1) {
      return key;
    }
  } catch (const util::Base64Exception&) {  // NOLINT(bugprone-empty-catch)
    // Told below.
  }
  ZLOG_ERROR("Decryption key generation api failed");
  return "";
}

}  // namespace zagent::common
