#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace zagent::tools {

struct ReceiverOptions {
  // Whose uploads are accepted.
  std::string customer_id;
  std::string agent_id;
  std::string activation_id;

  std::uint16_t port = 0;    // 0: a free one
  std::string ca_file;       // where to write the certificate; empty: nowhere
  std::string store_folder;  // where to write accepted payloads; empty: nowhere

  // How to misbehave. The first `status_requests` requests (0: all) are answered with `status` and nothing else
  // happens to them.
  int status = 0;  // 0: none
  unsigned status_requests = 0;
  std::chrono::milliseconds delay{0};  // before an answer; ends early when the receiver stops
  bool reset = false;                  // reset the connection instead of an answer
  bool truncate = false;               // accept, but announce a longer body than is sent
  bool z_srv = true;                   // set the header "Z-SRV", as the platform does on everything

  // A plain HTTP proxy beside it: tunnels CONNECT requests, or answers everything with `proxy_status`.
  std::optional<std::uint16_t> proxy_port;  // 0: a free one
  int proxy_status = 0;

  // Gets every line that the receiver has to say, one call at a time, first "listening on <url>". May be empty.
  std::function<void(const std::string& line)> print;
};

}  // namespace zagent::tools
