#include "tools/reference-receiver/TunnelProxy.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/TCPServerConnection.h>
#include <Poco/Net/TCPServerConnectionFactory.h>
#include <poll.h>

#include <array>
#include <string>

namespace zagent::tools {
namespace {

using Poco::Net::HTTPResponse;
using Poco::Net::SocketAddress;
using Poco::Net::StreamSocket;

constexpr std::size_t kMaxHeadSize = 16384;

class Connection final : public Poco::Net::TCPServerConnection {
 public:
  Connection(const StreamSocket& socket, TunnelProxy::Shared& shared) : TCPServerConnection(socket), shared_(shared) {}

  void run() override {
    try {
      Serve();
    } catch (const Poco::Exception&) {  // NOLINT(bugprone-empty-catch)
      // One side has gone, and the other learns it from the end of its connection.
    }
  }

 private:
  void Serve() {
    std::string head;
    if (!ReadHead(head)) return;
    if (shared_.status != 0) return Refuse(shared_.status);
    if (!head.starts_with("CONNECT ")) return Refuse(HTTPResponse::HTTP_METHOD_NOT_ALLOWED);
    const std::string target = head.substr(8, head.find(' ', 8) - 8);
    StreamSocket upstream;
    try {
      upstream.connect(SocketAddress(target));
    } catch (const Poco::Exception&) {
      return Refuse(HTTPResponse::HTTP_BAD_GATEWAY);
    }
    Send(socket(), "HTTP/1.1 200 Connection established\r\n\r\n");
    ++shared_.tunnels;
    Relay(upstream);
  }

  // Waits until one of the two can be read; false when the proxy ends.
  bool Wait(std::array<pollfd, 3>& fds) const {
    fds[2] = {shared_.stop.GetFd(), POLLIN, 0};
    while (poll(fds.data(), fds.size(), -1) < 0) {
    }
    return fds[2].revents == 0;
  }

  // Byte by byte, so that nothing of what follows the head is taken with it.
  bool ReadHead(std::string& head) {
    while (!head.ends_with("\r\n\r\n")) {
      std::array<pollfd, 3> fds{{{socket().impl()->sockfd(), POLLIN, 0}, {-1, 0, 0}, {}}};
      char byte = 0;
      if (head.size() == kMaxHeadSize || !Wait(fds) || socket().receiveBytes(&byte, 1) != 1) return false;
      head.push_back(byte);
    }
    return true;
  }

  void Refuse(int status) {
    Send(socket(), "HTTP/1.1 " + std::to_string(status) + " " +
                       HTTPResponse::getReasonForStatus(static_cast<HTTPResponse::HTTPStatus>(status)) +
                       "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
  }

  void Relay(StreamSocket& upstream) {
    while (true) {
      std::array<pollfd, 3> fds{{{socket().impl()->sockfd(), POLLIN, 0}, {upstream.impl()->sockfd(), POLLIN, 0}, {}}};
      if (!Wait(fds)) return;
      if (fds[0].revents != 0 && !Forward(socket(), upstream)) return;
      if (fds[1].revents != 0 && !Forward(upstream, socket())) return;
    }
  }

  static bool Forward(StreamSocket& from, StreamSocket& to) {
    std::array<char, 16384> buffer{};
    const int count = from.receiveBytes(buffer.data(), static_cast<int>(buffer.size()));
    if (count <= 0) return false;
    Send(to, {buffer.data(), static_cast<std::size_t>(count)});
    return true;
  }

  static void Send(StreamSocket& socket, const std::string& text) {
    int sent = 0;
    while (sent < static_cast<int>(text.size())) {
      sent += socket.sendBytes(text.data() + sent, static_cast<int>(text.size()) - sent);
    }
  }

  TunnelProxy::Shared& shared_;
};

class Factory final : public Poco::Net::TCPServerConnectionFactory {
 public:
  explicit Factory(TunnelProxy::Shared& shared) : shared_(shared) {}
  Poco::Net::TCPServerConnection* createConnection(const StreamSocket& socket) override {
    return new Connection(socket, shared_);  // NOLINT(cppcoreguidelines-owning-memory): Poco's way
  }

 private:
  TunnelProxy::Shared& shared_;
};

}  // namespace

TunnelProxy::TunnelProxy(std::uint16_t port, int status)
    : threads_(2, 16),
      server_(new Factory(shared_), threads_, Poco::Net::ServerSocket(SocketAddress("127.0.0.1", port))) {
  shared_.status = status;
  server_.start();
}

TunnelProxy::~TunnelProxy() {
  server_.stop();
  shared_.stop.Notify();
  threads_.joinAll();
}

}  // namespace zagent::tools
