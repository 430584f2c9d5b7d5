#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <stdexcept>
#include <string>

#include "common/src/util/UniqueFd.h"

namespace zagent::fakes {

// A host that answers no SYN: its queue of connections is full.
class BlackHole {
 public:
  BlackHole() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address_);
    if (bind(listener_.Get(), reinterpret_cast<sockaddr*>(&address_), size) != 0 || listen(listener_.Get(), 0) != 0 ||
        getsockname(listener_.Get(), reinterpret_cast<sockaddr*>(&address_), &size) != 0) {
      throw std::runtime_error("BlackHole: no socket");
    }
    for (common::util::UniqueFd& filler : fillers_) {
      filler.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
      (void)connect(filler.Get(), reinterpret_cast<sockaddr*>(&address_), sizeof(address_));
    }
  }
  [[nodiscard]] std::string Url() const { return "http://127.0.0.1:" + std::to_string(ntohs(address_.sin_port)) + "/"; }

 private:
  common::util::UniqueFd listener_;
  sockaddr_in address_{};
  std::array<common::util::UniqueFd, 8> fillers_;
};

}  // namespace zagent::fakes
