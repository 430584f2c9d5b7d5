#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "tools/event-stream/StreamOptions.h"

namespace zagent::tools {

struct ReceiverOptions {
  // Whose uploads are accepted: one agent, those of a file (AgentKeys), or both.
  std::string customer_id;
  std::string agent_id;
  std::string activation_id;
  std::string keys_file;
  std::string hmac_v3_file;  // the keys of version 3 of the signature, as JSON; empty: refuse it

  std::string address = "127.0.0.1";  // where it listens
  std::uint16_t port = 0;             // 0: a free one
  // Requests at the same time. A kept connection holds a thread as long as nobody waits for one.
  unsigned max_threads = 32;
  std::string ca_file;      // where to write the certificate; empty: nowhere
  std::string cert_folder;  // where certificate and key are kept over a restart; empty: made anew every time
  std::string cert_names = "IP:127.0.0.1,DNS:localhost";  // whose certificate it is
  int cert_days = 365;                                    // from yesterday; negative: expired so long ago
  std::string client_ca_file;  // clients must prove themselves by a certificate that leads to this one; empty: no need
  // Where to write accepted payloads; empty: nowhere. Not with a stream.
  std::string store_folder;
  std::optional<StreamOptions> stream;  // publish accepted payloads there
  // A larger body is refused, compressed or not. A spool file of 64 MiB fits with its envelope; agents that make larger
  // ones (`max_file_size_kb`) need more.
  std::size_t max_body_size = 128UL * 1024 * 1024;
  bool keep_payloads = false;  // keep accepted payloads in memory, for GetPayloads: without end, so for tests
  bool validate = false;       // refuse documents of events that do not follow docs/schema
  bool quiet = false;          // print no lines for what is accepted

  // How to misbehave. The first `status_requests` requests (0: all) are answered with `status` and nothing else
  // happens to them.
  int status = 0;  // 0: none
  unsigned status_requests = 0;
  // A status and a fault of the body are only for requests whose path holds this; empty: for all.
  std::string only_for;
  std::chrono::milliseconds delay{0};  // before an answer; ends early when the receiver stops
  bool reset = false;                  // reset the connection instead of an answer
  unsigned lose_answers = 0;           // accept the first so many uploads, and reset instead of the answer
  // Accept, but announce a longer body than is sent; then end the connection, reset it, or send nothing more.
  enum class BodyFault { None, Truncate, Reset, Stall };
  BodyFault body_fault = BodyFault::None;
  unsigned body_fault_uploads = 0;  // to so many accepted uploads only; 0: to all
  bool z_srv = true;                // set the header "Z-SRV", as the platform does on everything

  // A plain HTTP proxy beside it: tunnels CONNECT requests, or answers everything with `proxy_status`.
  std::optional<std::uint16_t> proxy_port;  // 0: a free one
  int proxy_status = 0;

  // A page that shows what comes, with the token that its address has. Empty: none.
  std::optional<std::uint16_t> page_port;  // 0: a free one
  std::string page_address = "127.0.0.1";

  // Gets every line that the receiver has to say, one call at a time, first "listening on <url>". May be empty.
  std::function<void(const std::string& line)> print;
};

}  // namespace zagent::tools
