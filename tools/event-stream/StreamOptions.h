#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace zagent::tools {

// Which stream of which engine, a NATS server or a cluster of them with JetStream, and how to get there.
struct StreamOptions {
  std::string urls;  // "nats://A:4222,B:4222" or "tls://...", those that are tried first; a cluster tells of the others
  std::string name = "EDR";

  // Proof of oneself; an empty file for none. `login_file` holds a user and a password between blanks, or a token
  // alone; `credentials_file` is what the engine's tools make of a user's JWT and seed. Both must be closed to all but
  // their owner.
  std::string login_file;
  std::string credentials_file;
  std::string ca_file;           // verify the engine with these certificates; TLS with "nats://", too
  std::string certificate_file;  // of this client, with `key_file`
  std::string key_file;

  // How the stream is made when there is none; one that exists is used as it is.
  unsigned replicas = 3;
  std::int64_t max_bytes = 10LL << 30U;
  std::chrono::hours max_age{24 * 7};
  std::chrono::minutes duplicate_window{60};
  // A full stream refuses what comes, so that it stays where it is; otherwise the oldest give way.
  bool drop_oldest = false;

  std::chrono::milliseconds ack_wait{5'000};  // for the engine's acknowledgement, several tries in it
};

// Takes a switch of the command line, its name without "--"; false for one that is none of a stream's. Throws
// std::invalid_argument with a text for the user for a value that cannot be.
bool ApplyStreamSwitch(StreamOptions& options, const std::string& name, const std::string& value);

// The names that ApplyStreamSwitch takes, and the text that says so, a line each. All have a value.
struct StreamSwitch {
  const char* name;
  const char* help;
  bool makes_stream;  // is about how the stream is made
};
inline constexpr StreamSwitch kStreamSwitches[] = {
    {"stream", "nats://A,B  the engine's servers", false},
    {"stream-name", "NAME  the stream (default: EDR)", false},
    {"stream-login", "FILE  a user and a password, or a token, for the engine", false},
    {"stream-credentials", "FILE  a credentials file for the engine", false},
    {"stream-ca", "FILE  verify the engine with these certificates", false},
    {"stream-cert", "FILE  show the engine this certificate", false},
    {"stream-key", "FILE  the key of it", false},
    {"stream-replicas", "N  of a stream that is made (default: 3)", true},
    {"stream-size", "MIB  that it may take (default: 10240)", true},
    {"stream-age", "HOURS  that it keeps uploads (default: 168)", true},
    {"stream-window", "MINUTES  in which it knows an upload again (default: 60)", true},
    {"stream-full", "refuse|drop-oldest  what it does when it is full (default: refuse)", true},
    {"stream-ack", "MS  to wait for the engine's acknowledgement (default: 5000)", true},
};

}  // namespace zagent::tools
