#include "tools/reference-receiver/PageServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <list>
#include <stdexcept>
#include <thread>

#include "common/src/util/Digest.h"
#include "common/src/util/ErrnoText.h"
#include "common/src/util/ThreadName.h"
#include "common/src/util/UniqueFd.h"
#include "tools/reference-receiver/PageFiles.h"

namespace zagent::tools {
namespace {

using common::util::UniqueFd;
using std::chrono::milliseconds;
using Time = std::chrono::steady_clock::time_point;

constexpr milliseconds kBetweenPortions{100};
constexpr milliseconds kBetweenBooks{1000};
constexpr milliseconds kBooksAtLatest{5000};
constexpr int kMaxReads = 16;  // of a connection in a turn

std::string RandomText(std::size_t bytes) {
  std::string random(bytes, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(random.data()), static_cast<int>(bytes)) != 1) {
    throw std::runtime_error("There are no random bytes");
  }
  return common::util::ToHex(random);
}

// Nothing comes from elsewhere, nothing runs that is no file of the page, and no text becomes markup. The address,
// which has the token, is told to nobody.
constexpr const char* kHeaders =
    "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
    "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'; "
    "require-trusted-types-for 'script'; trusted-types 'none'\r\n"
    "X-Content-Type-Options: nosniff\r\n"
    "Referrer-Policy: no-referrer\r\n"
    "Cross-Origin-Opener-Policy: same-origin\r\n"
    "Cross-Origin-Resource-Policy: same-origin\r\n"
    "Cache-Control: no-store\r\n"
    "Connection: close\r\n";

std::string Answer(const std::string& status, const std::string& type, const std::string& body,
                   const std::string& headers = "") {
  return "HTTP/1.1 " + status + "\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\n" + headers + kHeaders + "\r\n" + body;
}

std::string Refusal(const std::string& status, const std::string& headers = "") {
  return Answer(status, "text/plain; charset=utf-8", status.substr(4) + "\n", headers);
}

std::string TypeOf(const std::string& name) {
  constexpr std::array<std::pair<const char*, const char*>, 3> kTypes = {
      {{".js", "text/javascript"}, {".css", "text/css"}, {".svg", "image/svg+xml"}}};
  for (const auto& [end, type] : kTypes) {
    if (name.ends_with(end)) return std::string(type) + "; charset=utf-8";
  }
  return "text/html; charset=utf-8";
}

bool IsSame(const std::string& text, const std::string& secret) {
  return text.size() == secret.size() && CRYPTO_memcmp(text.data(), secret.data(), secret.size()) == 0;
}

std::string Message(const std::string& name, const std::string& data, const std::string& id = "") {
  return "event: " + name + "\n" + (id.empty() ? "" : "id: " + id + "\n") + "data: " + data + "\n\n";
}

struct Address {
  sockaddr_storage storage{};
  socklen_t size = 0;

  Address(const std::string& text, std::uint16_t port) {
    auto& v4 = reinterpret_cast<sockaddr_in&>(storage);
    auto& v6 = reinterpret_cast<sockaddr_in6&>(storage);
    if (inet_pton(AF_INET, text.c_str(), &v4.sin_addr) == 1) {
      v4.sin_family = AF_INET;
      v4.sin_port = htons(port);
      size = sizeof(v4);
    } else if (inet_pton(AF_INET6, text.c_str(), &v6.sin6_addr) == 1) {
      v6.sin6_family = AF_INET6;
      v6.sin6_port = htons(port);
      size = sizeof(v6);
    } else {
      throw std::runtime_error("Not an address to serve the page on: " + text);
    }
  }
  [[nodiscard]] sockaddr* Get() { return reinterpret_cast<sockaddr*>(&storage); }
};

}  // namespace

class PageServer::Loop {
 public:
  Loop(PageFeed& feed, Settings settings)
      : feed_(feed), settings_(std::move(settings)), token_(RandomText(16)), run_(RandomText(8)) {
    Listen();
    wake_.Reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wake_) throw std::runtime_error("The page has no event descriptor: " + common::util::ErrnoText(errno));
    feed_.SetListener([this] { (void)eventfd_write(wake_.Get(), 1); });
    thread_ = std::thread([this] { Run(); });
  }
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;
  ~Loop() {
    feed_.SetListener({});
    stopping_ = true;
    (void)eventfd_write(wake_.Get(), 1);
    thread_.join();
  }

  [[nodiscard]] std::string Url() const {
    const bool is_ipv6 = settings_.address.find(':') != std::string::npos;
    return "http://" + (is_ipv6 ? "[" + settings_.address + "]" : settings_.address) + ":" + std::to_string(port_) +
           "/" + token_ + "/";
  }

 private:
  // Request: its head is awaited. Answer: it is on its way. Drain: it has gone, and what the other side still sends is
  // thrown away, lest the answer be lost with it. Reader: gets events until it goes.
  enum class State { Request, Answer, Drain, Reader, Closed };

  struct Connection {
    UniqueFd fd;
    State state = State::Request;
    Time deadline;
    std::string in;
    std::string out;
    std::size_t sent = 0;
    // Of a reader.
    std::uint64_t next = 0;
    std::uint64_t health_version = 0;
    std::uint64_t books_version = 0;
    Time portion_at{};
    Time books_at{};
    bool is_new = true;

    [[nodiscard]] bool HasOutput() const { return sent < out.size(); }
  };

  void Listen() {
    Address address(settings_.address, settings_.port);
    listener_.Reset(socket(address.Get()->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    if (!listener_ || setsockopt(listener_.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        bind(listener_.Get(), address.Get(), address.size) != 0 || listen(listener_.Get(), 64) != 0 ||
        getsockname(listener_.Get(), address.Get(), &address.size) != 0) {
      throw std::runtime_error("Cannot serve the page on " + settings_.address + " port " +
                               std::to_string(settings_.port) + ": " + common::util::ErrnoText(errno));
    }
    // At the same place in both kinds of address.
    port_ = ntohs(reinterpret_cast<sockaddr_in&>(address.storage).sin_port);
  }

  void Run() {
    common::util::NameThisThread("page");
    while (!stopping_) {
      Wait();
      const Time now = std::chrono::steady_clock::now();
      Accept(now);
      for (Connection& connection : connections_) Serve(connection, now);
      connections_.remove_if([](const Connection& connection) { return connection.state == State::Closed; });
    }
  }

  void Wait() {
    const Time now = std::chrono::steady_clock::now();
    std::vector<pollfd> fds = {{wake_.Get(), POLLIN, 0}};
    if (now >= accept_again_) fds.push_back({listener_.Get(), POLLIN, 0});
    Time due = now + std::chrono::hours(1);
    if (now < accept_again_) due = std::min(due, accept_again_);
    for (const Connection& connection : connections_) {
      const bool listens = connection.state != State::Answer;
      const auto events = static_cast<short>((listens ? POLLIN : 0) | (connection.HasOutput() ? POLLOUT : 0));
      fds.push_back({connection.fd.Get(), events, 0});
      due = std::min(due, DueOf(connection));
    }
    const auto patience = std::chrono::ceil<milliseconds>(due - now).count();
    (void)poll(fds.data(), fds.size(), static_cast<int>(std::max<std::int64_t>(0, patience)));
    eventfd_t count = 0;
    (void)eventfd_read(wake_.Get(), &count);
  }

  // When there is something to do for a connection though nothing comes from it.
  [[nodiscard]] Time DueOf(const Connection& connection) const {
    if (connection.state != State::Reader || connection.HasOutput()) return connection.deadline;
    Time due = connection.books_at + kBooksAtLatest;
    if (feed_.NextNumber() > connection.next) due = std::min(due, connection.portion_at + kBetweenPortions);
    if (feed_.BooksVersion() != connection.books_version) due = std::min(due, connection.books_at + kBetweenBooks);
    return due;
  }

  void Accept(Time now) {
    if (now < accept_again_) return;
    while (true) {
      UniqueFd fd(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (!fd) {
        // Out of descriptors: the connection stays in the queue, and would be told of again and again.
        if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED) accept_again_ = now + kBetweenPortions;
        if (errno != EINTR && errno != ECONNABORTED) return;
        continue;
      }
      if (connections_.size() == kMaxConnections) {
        const auto oldest = std::find_if(connections_.begin(), connections_.end(),
                                         [](const Connection& one) { return one.state != State::Reader; });
        connections_.erase(oldest);
      }
      Connection& connection = connections_.emplace_back();
      connection.fd = std::move(fd);
      connection.deadline = now + settings_.request_patience;
    }
  }

  void Serve(Connection& connection, Time now) {
    if (connection.state != State::Answer) Receive(connection, now);
    if (connection.state == State::Reader && !connection.HasOutput()) Fill(connection, now);
    Send(connection, now);
    const bool waits_for_it = connection.state != State::Reader || connection.HasOutput();
    if (waits_for_it && now >= connection.deadline) connection.state = State::Closed;
  }

  // Of whoever sends without an end so much is taken as leaves the others their turn, and time to see its deadline.
  void Receive(Connection& connection, Time now) {
    std::array<char, 4096> buffer{};
    for (int reads = 0; reads < kMaxReads; ++reads) {
      if (connection.state == State::Closed || connection.state == State::Answer) return;
      const ssize_t count = recv(connection.fd.Get(), buffer.data(), buffer.size(), 0);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0 && errno == EAGAIN) return;
      if (count <= 0) {
        connection.state = State::Closed;
        return;
      }
      if (connection.state != State::Request) continue;  // nothing more is asked for here
      connection.in.append(buffer.data(), static_cast<std::size_t>(count));
      const std::size_t end = connection.in.find("\r\n\r\n");
      if (end != std::string::npos && end <= kMaxHead) {
        Handle(connection, now);
        connection.in.clear();
      } else if (connection.in.size() > kMaxHead) {
        Reply(connection, now, Refusal("431 Request Header Fields Too Large"));
      }
    }
  }

  void Handle(Connection& connection, Time now) {
    const std::string line = connection.in.substr(0, connection.in.find("\r\n"));
    const std::size_t first = line.find(' ');
    const std::size_t second = line.find(' ', first + 1);
    if (first == std::string::npos || second == std::string::npos || !line.substr(second + 1).starts_with("HTTP/1.")) {
      return Reply(connection, now, Refusal("400 Bad Request"));
    }
    const std::string target = line.substr(first + 1, second - first - 1);
    const std::string path = target.substr(0, target.find('?'));
    // Without the token there is nothing here, whatever is asked for.
    const std::size_t slash = std::min(path.find('/', 1), path.size());
    if (path.empty() || path.front() != '/' || !IsSame(path.substr(1, slash - 1), token_)) {
      return Reply(connection, now, Refusal("404 Not Found"));
    }
    if (line.substr(0, first) != "GET")
      return Reply(connection, now, Refusal("405 Method Not Allowed", "Allow: GET\r\n"));
    const std::string name = path.substr(std::min(slash + 1, path.size()));
    if (slash == path.size()) {
      return Reply(connection, now, Refusal("308 Permanent Redirect", "Location: /" + token_ + "/\r\n"));
    }
    if (name == "events") return StartReader(connection, now, target.substr(path.size()));
    for (const PageFile& file : PageFiles()) {
      if (file.name == (name.empty() ? "index.html" : name)) {
        return Reply(connection, now, Answer("200 OK", TypeOf(file.name), file.content));
      }
    }
    Reply(connection, now, Refusal("404 Not Found"));
  }

  void Reply(Connection& connection, Time now, std::string answer) {
    connection.out = std::move(answer);
    connection.state = State::Answer;
    connection.deadline = now + settings_.request_patience;
  }

  void StartReader(Connection& connection, Time now, const std::string& query) {
    const auto readers = std::count_if(connections_.begin(), connections_.end(),
                                       [](const Connection& one) { return one.state == State::Reader; });
    if (static_cast<std::size_t>(readers) >= kMaxReaders) {
      return Reply(connection, now, Refusal("503 Service Unavailable", "Retry-After: 5\r\n"));
    }
    connection.state = State::Reader;
    connection.deadline = now + settings_.reader_patience;
    connection.next = NumberBehind(query);
    connection.out =
        std::string("HTTP/1.1 200 OK\r\nContent-Type: text/event-stream; charset=utf-8\r\n") + kHeaders + "\r\n" +
        Message("start", "{\"run\":\"" + run_ + "\",\"max\":" + std::to_string(PageFeed::kMaxEvents) + "}");
  }

  // Of "?after=<run>.<number>" of this run; 0, before the first, else.
  [[nodiscard]] std::uint64_t NumberBehind(const std::string& query) const {
    const std::string begin = "?after=" + run_ + ".";
    if (!query.starts_with(begin)) return 0;
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(query.data() + begin.size(), query.data() + query.size(), number);
    const bool is_number = error == std::errc() && end == query.data() + query.size();
    return is_number && number < feed_.NextNumber() ? number + 1 : 0;
  }

  void Fill(Connection& connection, Time now) {
    connection.out.clear();
    connection.sent = 0;
    if (feed_.NextNumber() > connection.next && now >= connection.portion_at + kBetweenPortions) {
      const PageFeed::Portion portion = feed_.EventsFrom(connection.next, kMaxPortion);
      connection.next = portion.next;
      // What is there is told without a pause; what comes later is gathered for one.
      if (portion.next == feed_.NextNumber()) connection.portion_at = now;
      if (!portion.is_empty) {
        connection.out += Message("events", portion.json, run_ + "." + std::to_string(portion.next - 1));
      }
    }
    const std::uint64_t books = feed_.BooksVersion();
    const auto since_books = now - connection.books_at;
    if (connection.is_new || since_books >= kBooksAtLatest ||
        (books != connection.books_version && since_books >= kBetweenBooks)) {
      FillBooks(connection, now, books);
    }
    if (connection.HasOutput()) connection.deadline = now + settings_.reader_patience;
  }

  void FillBooks(Connection& connection, Time now, std::uint64_t version) {
    const std::uint64_t health = feed_.HealthVersion();
    if (connection.is_new || health != connection.health_version) {
      connection.out += Message("health", feed_.Health());
      connection.health_version = health;
    }
    connection.out += Message("books", feed_.Books());
    connection.books_version = version;
    connection.books_at = now;
    connection.is_new = false;
  }

  void Send(Connection& connection, Time now) {
    while (connection.state != State::Closed && connection.HasOutput()) {
      const ssize_t count = send(connection.fd.Get(), connection.out.data() + connection.sent,
                                 connection.out.size() - connection.sent, MSG_NOSIGNAL);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0 && errno == EAGAIN) return;
      if (count <= 0) {
        connection.state = State::Closed;
        return;
      }
      connection.sent += static_cast<std::size_t>(count);
      if (connection.state == State::Reader) {
        connection.deadline = now + settings_.reader_patience;
        if (!connection.HasOutput()) Fill(connection, now);
      }
    }
    if (connection.state != State::Answer) return;
    shutdown(connection.fd.Get(), SHUT_WR);
    connection.state = State::Drain;
    connection.deadline = now + settings_.request_patience;
  }

  PageFeed& feed_;
  const Settings settings_;
  const std::string token_;
  const std::string run_;
  std::uint16_t port_ = 0;
  UniqueFd listener_;
  UniqueFd wake_;
  Time accept_again_{};
  std::list<Connection> connections_;  // oldest first
  std::atomic<bool> stopping_{false};
  std::thread thread_;
};

PageServer::PageServer(PageFeed& feed, Settings settings) : loop_(std::make_unique<Loop>(feed, std::move(settings))) {}

PageServer::~PageServer() = default;

std::string PageServer::GetUrl() const {
  return loop_->Url();
}

}  // namespace zagent::tools
