// An engine that knows an upload's id and has not stored it: a made one, which answers as it is told to.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <sstream>
#include <thread>

#include "common/src/util/UniqueFd.h"
#include "tests/e2e/fleet/StreamFixture.h"

namespace zagent::e2e {
namespace {

using common::util::UniqueFd;

// Speaks as much of the engine's protocol to one client as publishing needs. Publications are answered in turn, the
// last answer for all that follow.
class MadeEngine {
 public:
  explicit MadeEngine(std::vector<std::string> answers)
      : answers_(std::move(answers)), listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (bind(listener_.Get(), reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener_.Get(), 4) != 0 ||
        getsockname(listener_.Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      throw std::runtime_error("MadeEngine: no socket");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Run(); });
  }
  ~MadeEngine() {
    shutdown(listener_.Get(), SHUT_RDWR);
    thread_.join();
  }
  [[nodiscard]] std::string Url() const { return "nats://127.0.0.1:" + std::to_string(port_); }

 private:
  void Run() {
    while (true) {
      const UniqueFd client(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!client) return;
      Tell(client, R"(INFO {"server_id":"made","version":"2.9.10","proto":1,"headers":true,"max_payload":1048576})");
      std::string in;
      std::string sid;
      char buffer[4096];
      for (ssize_t count = 0; (count = recv(client.Get(), buffer, sizeof(buffer), 0)) > 0;) {
        in.append(buffer, static_cast<std::size_t>(count));
        while (TakeOne(client, in, sid)) {
        }
      }
    }
  }
  bool TakeOne(const UniqueFd& client, std::string& in, std::string& sid) {
    const std::size_t end = in.find("\r\n");
    if (end == std::string::npos) return false;
    std::istringstream line(in.substr(0, end));
    std::vector<std::string> words;
    for (std::string word; line >> word;) words.push_back(word);
    std::size_t size = end + 2;
    if (words.size() > 2 && words[0].ends_with("PUB")) size += std::stoul(words.back()) + 2;
    if (in.size() < size) return false;
    in.erase(0, size);
    if (words[0] == "PING") Tell(client, "PONG");
    if (words[0] == "SUB") sid = words.back();
    if (!words[0].ends_with("PUB")) return true;
    const std::string answer = words[1].starts_with("$JS.API.")
                                   ? R"({"config":{"name":"EDR","subjects":["edr.>"]},"state":{}})"
                                   : answers_[std::min(published_++, answers_.size() - 1)];
    Tell(client, "MSG " + words[2] + " " + sid + " " + std::to_string(answer.size()) + "\r\n" + answer);
    return true;
  }
  static void Tell(const UniqueFd& client, const std::string& text) {
    const std::string line = text + "\r\n";
    (void)send(client.Get(), line.data(), line.size(), MSG_NOSIGNAL);
  }

  const std::vector<std::string> answers_;
  std::size_t published_ = 0;
  UniqueFd listener_;
  std::uint16_t port_ = 0;
  std::thread thread_;
};

class UnstoredTest : public StreamFixture {
 protected:
  static constexpr const char* kUnstored = R"({"stream":"EDR","seq":0,"duplicate":true})";

  static bool AddTo(const MadeEngine& engine, std::chrono::milliseconds patience) {
    tools::StreamOptions stream;
    stream.urls = engine.Url();
    stream.ack_wait = patience;
    tools::StreamSink sink(stream, {});
    EXPECT_TRUE(fakes::Eventually([&] { return sink.MaxSize() == 1'048'576; }));
    return sink.Add(Payload("{}", "id-1"), {});
  }
};

TEST_F(UnstoredTest, AnIdWithoutAPlaceInTheStreamIsNoAcknowledgement) {
  const MadeEngine engine({kUnstored});
  EXPECT_THROW(AddTo(engine, std::chrono::milliseconds(300)), std::runtime_error);
}

TEST_F(UnstoredTest, AnUploadIsTriedUntilItHasAPlace) {
  const MadeEngine engine({kUnstored, kUnstored, R"({"stream":"EDR","seq":7,"duplicate":true})"});
  EXPECT_TRUE(AddTo(engine, std::chrono::seconds(30))) << "its own first try has brought it there";
}

}  // namespace
}  // namespace zagent::e2e
