#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/src/util/UniqueFd.h"

namespace zagent::fakes {

// A plain HTTP server on 127.0.0.1 that plays a script: one entry for each request, the last one for all that follow.
// Also plays a plain HTTP proxy, which gets its requests in the same form.
class FakeHttpServer {
 public:
  struct Request {
    std::string method;
    std::string target;
    std::string head;  // status line and headers
    std::string body;

    // The header's value; "(absent)" without one.
    [[nodiscard]] std::string Header(const std::string& name) const {
      std::size_t line = head.find("\r\n");
      while (line != std::string::npos && line + 2 < head.size()) {
        const std::size_t begin = line + 2;
        line = head.find("\r\n", begin);
        const std::string text = head.substr(begin, line - begin);
        const std::size_t colon = text.find(':');
        if (colon != name.size() || strncasecmp(text.c_str(), name.c_str(), colon) != 0) continue;
        const std::size_t value = text.find_first_not_of(' ', colon + 1);
        return value == std::string::npos ? "" : text.substr(value);
      }
      return "(absent)";
    }
  };

  // "HTTP/1.1 503 Service Unavailable" with headers ("Z-SRV: x\r\n") and a body.
  static std::string Answer(const std::string& status, const std::string& headers = "", const std::string& body = "") {
    return "HTTP/1.1 " + status + "\r\n" + headers + "Content-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
  }
  // Entries of a script that are no answer, and ends of one: what stands before them is sent. Then the connection is
  // reset, nothing more is sent, or a byte now and then, for ever.
  static constexpr const char* kReset = "(reset)";
  static constexpr const char* kHang = "(hang)";
  static constexpr const char* kTrickle = "(trickle)";

  explicit FakeHttpServer(std::vector<std::string> script) : script_(std::move(script)) {
    listener_.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (bind(listener_.Get(), reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener_.Get(), 16) != 0 ||
        getsockname(listener_.Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      throw std::runtime_error("FakeHttpServer: no socket");
    }
    port_ = ntohs(address.sin_port);
    stop_.Reset(eventfd(0, EFD_CLOEXEC));
    thread_ = std::thread([this] { Run(); });
  }
  FakeHttpServer(const FakeHttpServer&) = delete;
  FakeHttpServer& operator=(const FakeHttpServer&) = delete;
  ~FakeHttpServer() {
    eventfd_write(stop_.Get(), 1);
    thread_.join();
  }

  [[nodiscard]] std::string Address() const { return "127.0.0.1:" + std::to_string(port_); }
  [[nodiscard]] std::string Url(const std::string& path = "/") const { return "http://" + Address() + path; }

  [[nodiscard]] std::vector<Request> Requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
  }
  // Blocks until `count` requests have come whole.
  void AwaitRequests(std::size_t count) const {
    std::unique_lock lock(mutex_);
    arrived_.wait(lock, [&] { return requests_.size() >= count; });
  }

 private:
  // False when the test is over.
  bool WaitReadable(int fd) const {
    pollfd fds[] = {{fd, POLLIN, 0}, {stop_.Get(), POLLIN, 0}};
    while (poll(fds, 2, -1) < 0) {
    }
    return fds[1].revents == 0;
  }

  void Run() {
    while (WaitReadable(listener_.Get())) {
      const common::util::UniqueFd connection(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (connection) Serve(connection.Get());
    }
  }

  void Serve(int fd) {
    Request request;
    if (!Receive(fd, request)) return;
    std::string answer;
    {
      const std::lock_guard lock(mutex_);
      requests_.push_back(request);
      answer = script_[std::min(requests_.size(), script_.size()) - 1];
      arrived_.notify_all();
    }
    if (SendBefore(fd, answer, kHang)) {
      pollfd stop{stop_.Get(), POLLIN, 0};
      poll(&stop, 1, -1);
    } else if (SendBefore(fd, answer, kTrickle)) {
      pollfd stop{stop_.Get(), POLLIN, 0};
      while (poll(&stop, 1, 20) == 0 && send(fd, "x", 1, MSG_NOSIGNAL) == 1) {
      }
    } else if (SendBefore(fd, answer, kReset)) {
      const linger at_once{1, 0};
      setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    } else {
      Send(fd, answer);
    }
  }

  // True for an answer that ends so; what stands before the end has been sent then.
  static bool SendBefore(int fd, const std::string& answer, const std::string& end) {
    if (!answer.ends_with(end)) return false;
    Send(fd, answer.substr(0, answer.size() - end.size()));
    return true;
  }

  bool Receive(int fd, Request& request) const {
    std::string text;
    std::size_t end = std::string::npos;
    while ((end = text.find("\r\n\r\n")) == std::string::npos) {
      if (!ReadSome(fd, text)) return false;
    }
    request.head = text.substr(0, end);
    request.body = text.substr(end + 4);
    request.method = text.substr(0, text.find(' '));
    const std::size_t target = text.find(' ') + 1;
    request.target = text.substr(target, text.find(' ', target) - target);
    if (request.Header("Expect") == "100-continue") Send(fd, "HTTP/1.1 100 Continue\r\nX-Early: 1\r\n\r\n");
    const std::size_t length = std::strtoul(request.Header("Content-Length").c_str(), nullptr, 10);
    while (request.body.size() < length) {
      if (!ReadSome(fd, request.body)) return false;
    }
    return true;
  }

  bool ReadSome(int fd, std::string& text) const {
    char buffer[4096];
    if (!WaitReadable(fd)) return false;
    const ssize_t count = read(fd, buffer, sizeof(buffer));
    if (count > 0) text.append(buffer, static_cast<std::size_t>(count));
    return count > 0;
  }

  static void Send(int fd, const std::string& text) {
    std::size_t sent = 0;
    while (sent < text.size()) {
      const ssize_t count = send(fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) return;
      sent += static_cast<std::size_t>(count);
    }
  }

  const std::vector<std::string> script_;
  common::util::UniqueFd listener_;
  common::util::UniqueFd stop_;
  std::uint16_t port_ = 0;
  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::vector<Request> requests_;
  std::thread thread_;
};

}  // namespace zagent::fakes
