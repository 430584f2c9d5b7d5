#pragma once

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "common/src/util/Base64.h"

namespace zagent::e2e {

// One account of an engine that lets in whoever shows a credentials file: a JWT of the user, signed by the account,
// whose own is signed by the engine's operator, and the seed of the user's key.
class EngineAccount {
 public:
  // For nats.conf, with JetStream for the account.
  [[nodiscard]] std::string Configuration() const {
    constexpr const char* kUnlimited =
        R"("limits":{"subs":-1,"data":-1,"payload":-1,"imports":-1,"exports":-1,"wildcards":true,"conn":-1,"leaf":-1,)"
        R"("mem_storage":-1,"disk_storage":-1,"streams":-1,"consumer":-1},"type":"account")";
    const std::string system = system_.Public();
    return "operator: " + Jwt(operator_, operator_, R"("type":"operator")") + "\nsystem_account: " + system +
           "\nresolver: MEMORY\nresolver_preload: {\n  " + account_.Public() + ": " +
           Jwt(operator_, account_, kUnlimited) + "\n  " + system + ": " +
           Jwt(operator_, system_, R"("limits":{"subs":-1,"conn":-1},"type":"account")") + "\n}\n";
  }
  // The text of a user's credentials file; of a user whom another account has signed as well.
  [[nodiscard]] std::string Credentials() const { return CredentialsBy(account_); }
  [[nodiscard]] std::string ForeignCredentials() const { return CredentialsBy(stranger_); }

 private:
  // An Ed25519 key and its texts: base32 of what it is, the key and a checksum.
  class Key {
   public:
    explicit Key(std::uint8_t kind) : kind_(kind), key_(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), EVP_PKEY_free) {
      if (!key_) throw std::runtime_error("EngineAccount: no key");
    }
    [[nodiscard]] std::string Public() const {
      std::string raw(32, '\0');
      std::size_t size = raw.size();
      EVP_PKEY_get_raw_public_key(key_.get(), reinterpret_cast<unsigned char*>(raw.data()), &size);
      return Text(std::string(1, static_cast<char>(kind_)) + raw);
    }
    [[nodiscard]] std::string Seed() const {
      constexpr unsigned kSeed = 18U << 3U;
      std::string raw(32, '\0');
      std::size_t size = raw.size();
      EVP_PKEY_get_raw_private_key(key_.get(), reinterpret_cast<unsigned char*>(raw.data()), &size);
      const std::string what = {static_cast<char>(kSeed | (kind_ >> 5U)), static_cast<char>((kind_ & 31U) << 3U)};
      return Text(what + raw);
    }
    [[nodiscard]] std::string Sign(const std::string& text) const {
      const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), EVP_MD_CTX_free);
      std::string signature(64, '\0');
      std::size_t size = signature.size();
      EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key_.get());
      if (EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &size,
                         reinterpret_cast<const unsigned char*>(text.data()), text.size()) != 1) {
        throw std::runtime_error("EngineAccount: no signature");
      }
      return signature;
    }

   private:
    static std::string Text(std::string bytes) {
      unsigned checksum = 0;
      for (const char byte : bytes) {
        checksum ^= static_cast<unsigned>(static_cast<unsigned char>(byte)) << 8U;
        for (int bit = 0; bit < 8; ++bit) checksum = (checksum << 1U) ^ ((checksum & 0x8000U) != 0 ? 0x11021U : 0);
      }
      bytes += static_cast<char>(checksum & 0xffU);
      bytes += static_cast<char>(checksum >> 8U & 0xffU);
      std::string text;
      unsigned held = 0;
      unsigned bits = 0;
      for (const char byte : bytes) {
        held = held << 8U | static_cast<unsigned char>(byte);
        for (bits += 8; bits >= 5; bits -= 5) text += kBase32[held >> (bits - 5) & 31U];
      }
      if (bits > 0) text += kBase32[held << (5 - bits) & 31U];
      return text;
    }

    static constexpr std::string_view kBase32 = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
    std::uint8_t kind_;
    std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key_;
  };

  static std::string UrlBase64(const std::string& bytes) {
    std::string text = common::util::Base64Encode(bytes);
    text.erase(std::find(text.begin(), text.end(), '='), text.end());
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    return text;
  }
  static std::string Jwt(const Key& issuer, const Key& subject, const std::string& claims) {
    const std::string said =
        UrlBase64(R"({"typ":"JWT","alg":"ed25519-nkey"})") + "." +
        UrlBase64(R"({"jti":"1","iat":1700000000,"iss":")" + issuer.Public() + R"(","name":"n","sub":")" +
                  subject.Public() + R"(","nats":{"version":2,)" + claims + "}}");
    return said + "." + UrlBase64(issuer.Sign(said));
  }
  [[nodiscard]] std::string CredentialsBy(const Key& account) const {
    return "-----BEGIN NATS USER JWT-----\n" +
           Jwt(account, user_, R"("pub":{},"sub":{},"subs":-1,"data":-1,"payload":-1,"type":"user")") +
           "\n------END NATS USER JWT------\n\n-----BEGIN USER NKEY SEED-----\n" + user_.Seed() +
           "\n------END USER NKEY SEED------\n";
  }

  static constexpr std::uint8_t kOperator = 14U << 3U;
  static constexpr std::uint8_t kAccount = 0;
  static constexpr std::uint8_t kUser = 20U << 3U;
  const Key operator_{kOperator};
  const Key system_{kAccount};
  const Key account_{kAccount};
  const Key stranger_{kAccount};
  const Key user_{kUser};
};

}  // namespace zagent::e2e
