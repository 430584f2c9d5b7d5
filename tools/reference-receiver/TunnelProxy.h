#pragma once

#include <Poco/Net/TCPServer.h>
#include <Poco/ThreadPool.h>

#include <atomic>
#include <cstdint>

#include "common/src/http/WakeUp.h"

namespace zagent::tools {

// A plain HTTP proxy on 127.0.0.1: opens tunnels for CONNECT and refuses everything else with 405; with a status, it
// refuses everything with that. What it says itself never has the header "Z-SRV".
class TunnelProxy {
 public:
  TunnelProxy(std::uint16_t port, int status);
  TunnelProxy(const TunnelProxy&) = delete;
  TunnelProxy& operator=(const TunnelProxy&) = delete;
  ~TunnelProxy();

  [[nodiscard]] std::uint16_t GetPort() const { return server_.port(); }
  [[nodiscard]] unsigned GetTunnelCount() const { return shared_.tunnels; }

  struct Shared {
    int status = 0;
    std::atomic<unsigned> tunnels{0};
    common::WakeUp stop;  // readable for good once the proxy ends
  };

 private:
  Shared shared_;
  Poco::ThreadPool threads_;
  Poco::Net::TCPServer server_;
};

}  // namespace zagent::tools
