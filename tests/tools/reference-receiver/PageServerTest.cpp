// The page's server, as browsers and less honest programs meet it.
#include "tools/reference-receiver/PageServer.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <iterator>
#include <regex>
#include <thread>

#include "common/src/util/UniqueFd.h"
#include "tests/fakes/Gate.h"
#include "tools/reference-receiver/PageFiles.h"

namespace zagent::tools {
namespace {

using common::util::UniqueFd;
using std::chrono::milliseconds;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
using ::testing::StartsWith;

const std::string kFim = "/v1/fim/events";

std::string Document(std::size_t count, const std::string& path = "/w/file") {
  std::string events;
  for (std::size_t i = 0; i < count; ++i) {
    events += std::string(i == 0 ? "" : ",") + R"({"eventAction":"Create","imagePath":")" + path + R"("})";
  }
  return R"({"events":[)" + events + "]}";
}

// One connection to the server.
class Client {
 public:
  Client(std::uint16_t port, const std::string& text, const char* address = "127.0.0.1", int buffer = 0)
      : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (buffer != 0) setsockopt(fd_.Get(), SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    inet_pton(AF_INET, address, &to.sin_addr);
    connected_ = connect(fd_.Get(), reinterpret_cast<sockaddr*>(&to), sizeof(to)) == 0;
    Send(text);
  }

  [[nodiscard]] bool IsConnected() const { return connected_; }
  // False when the server has left.
  bool Send(const std::string& text) const { return send(fd_.Get(), text.data(), text.size(), MSG_NOSIGNAL) >= 0; }

  // All until this text has come, or the end; what came until then.
  std::string Until(const std::string& text, milliseconds patience = fakes::kTestPatience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    std::size_t searched = 0;  // much can come, and most of it was looked at before
    while (got_.find(text, searched) == std::string::npos) {
      searched = got_.size() - std::min(got_.size(), text.size());
      const auto left = std::chrono::ceil<milliseconds>(deadline - std::chrono::steady_clock::now());
      pollfd fd{fd_.Get(), POLLIN, 0};
      if (left.count() <= 0 || poll(&fd, 1, static_cast<int>(left.count())) <= 0) break;
      char buffer[65536];
      const ssize_t count = recv(fd_.Get(), buffer, sizeof(buffer), 0);
      if (count <= 0) {
        ended_ = true;
        break;
      }
      got_.append(buffer, static_cast<std::size_t>(count));
    }
    return got_;
  }
  std::string UntilEnd() { return Until("(never)"); }
  [[nodiscard]] bool HasEnded() const { return ended_; }

 private:
  UniqueFd fd_;
  bool connected_ = false;
  bool ended_ = false;
  std::string got_;
};

class PageServerTest : public ::testing::Test {
 protected:
  void Start(PageServer::Settings settings = {}) {
    server_.reset();
    server_ = std::make_unique<PageServer>(feed_, settings);
    std::smatch parts;
    const std::string url = server_->GetUrl();
    ASSERT_TRUE(std::regex_match(url, parts, std::regex("http://127\\.0\\.0\\.1:([0-9]+)(/[0-9a-f]{32}/)"))) << url;
    port_ = static_cast<std::uint16_t>(std::stoi(parts[1]));
    root_ = parts[2];
  }
  void SetUp() override { Start(); }

  std::string Ask(const std::string& target, const std::string& method = "GET") {
    return Client(port_, method + " " + target + " HTTP/1.1\r\nHost: x\r\n\r\n").UntilEnd();
  }
  std::unique_ptr<Client> Reader(const std::string& after = "", int buffer = 0) {
    return std::make_unique<Client>(port_, "GET " + root_ + "events" + after + " HTTP/1.1\r\nHost: x\r\n\r\n",
                                    "127.0.0.1", buffer);
  }

  PageFeed feed_;
  std::unique_ptr<PageServer> server_;
  std::uint16_t port_ = 0;
  std::string root_;
};

TEST_F(PageServerTest, ThePageIsServedBelowItsToken) {
  EXPECT_THAT(Ask(root_), AllOf(StartsWith("HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=utf-8\r\n"),
                                HasSubstr("<script type=\"module\" src=\"page.js\">")));
  for (const PageFile& file : PageFiles()) {
    EXPECT_THAT(Ask(root_ + file.name), AllOf(StartsWith("HTTP/1.1 200 OK"), HasSubstr(file.content))) << file.name;
  }
  EXPECT_THAT(Ask(root_ + "page.js"), HasSubstr("Content-Type: text/javascript;"));
  EXPECT_THAT(Ask(root_ + "page.css"), HasSubstr("Content-Type: text/css;"));
}

TEST_F(PageServerTest, TheTokenWithoutItsSlashLeadsToThePage) {
  EXPECT_THAT(Ask(root_.substr(0, root_.size() - 1)),
              AllOf(StartsWith("HTTP/1.1 308"), HasSubstr("Location: " + root_)));
}

TEST_F(PageServerTest, WithoutTheTokenThereIsNothing) {
  std::string other = root_;
  other[5] = other[5] == '0' ? '1' : '0';
  for (const std::string& target : {std::string("/"), std::string("/events"), std::string("/page.js"), other,
                                    other + "events", root_.substr(0, 20), std::string("*"), root_.substr(1)}) {
    EXPECT_THAT(Ask(target), StartsWith("HTTP/1.1 404")) << target;
  }
  EXPECT_THAT(Ask("/", "POST"), StartsWith("HTTP/1.1 404")) << "not even which methods there are";
}

TEST_F(PageServerTest, EveryRunHasATokenOfItsOwn) {
  const std::string first = root_;
  Start();
  EXPECT_NE(first, root_);
}

TEST_F(PageServerTest, OnlyGetIsAnswered) {
  for (const std::string method : {"POST", "PUT", "DELETE", "HEAD", "OPTIONS", "TRACE", "get"}) {
    EXPECT_THAT(Ask(root_, method), AllOf(StartsWith("HTTP/1.1 405"), HasSubstr("\r\nAllow: GET\r\n"))) << method;
  }
}

TEST_F(PageServerTest, NamesThatAreNoFileOfThePageAreNotFound) {
  for (const std::string name : {"../main.cpp", "..%2f..%2fetc/passwd", "page.js/", "PAGE.JS", "x", "page.js%00"}) {
    EXPECT_THAT(Ask(root_ + name), StartsWith("HTTP/1.1 404")) << name;
  }
}

TEST_F(PageServerTest, EveryAnswerForbidsWhatThePageDoesNotNeed) {
  for (const std::string& target : {root_, root_ + "page.js", std::string("/")}) {
    const std::string answer = Ask(target);
    EXPECT_THAT(answer, AllOf(HasSubstr("Content-Security-Policy: default-src 'none'; script-src 'self';"),
                              HasSubstr("require-trusted-types-for 'script'"), HasSubstr("frame-ancestors 'none'"),
                              HasSubstr("X-Content-Type-Options: nosniff"), HasSubstr("Referrer-Policy: no-referrer"),
                              HasSubstr("Cache-Control: no-store"), Not(HasSubstr("unsafe"))));
  }
}

TEST_F(PageServerTest, ThePageHasNoScriptInItsMarkupAndLoadsNothingFromElsewhere) {
  for (const PageFile& file : PageFiles()) {
    if (file.name == "d3.min.js") continue;  // what it could make of a text the policy forbids
    const std::string address = file.name.ends_with(".svg") ? "https:" : "http";
    EXPECT_THAT(file.content, Not(HasSubstr(address + "//"))) << file.name;
    for (const std::string way :
         {"innerHTML", "outerHTML", "insertAdjacentHTML", "document.write", "eval(", "import("}) {
      EXPECT_THAT(file.content, Not(HasSubstr(way))) << file.name;
    }
    if (!file.name.ends_with(".html")) continue;
    EXPECT_FALSE(std::regex_search(file.content, std::regex("<script(?![^>]*src=)| on[a-z]+=| style=|<style")))
        << file.name;
  }
}

TEST_F(PageServerTest, TheChartIsDrawnByTheScriptOfDebiansPackage) {
  std::ifstream in("/usr/share/javascript/d3/d3.min.js");
  const std::string script{std::istreambuf_iterator<char>(in), {}};
  ASSERT_THAT(script, HasSubstr("d3"));
  EXPECT_THAT(Ask(root_ + "d3.min.js"), EndsWith("\r\n\r\n" + script));
  EXPECT_THAT(Ask(root_), HasSubstr("<script src=\"d3.min.js\">"));
}

TEST_F(PageServerTest, WhatIsNoRequestIsRefused) {
  for (const std::string text :
       {"\r\n\r\n", "GET\r\n\r\n", "GET /\r\n\r\n", "GET / SPDY/3\r\n\r\n", "\x16\x03\x01\r\n\r\n"}) {
    EXPECT_THAT(Client(port_, text).UntilEnd(), StartsWith("HTTP/1.1 400")) << text;
  }
}

TEST_F(PageServerTest, AHeadWithoutEndIsRefusedAtItsBound) {
  EXPECT_THAT(Client(port_, "GET / HTTP/1.1\r\nA: " + std::string(PageServer::kMaxHead, 'a')).UntilEnd(),
              StartsWith("HTTP/1.1 431"));
}

TEST_F(PageServerTest, ARequestThatComesInPiecesIsOne) {
  Client client(port_, "GET " + root_.substr(0, 9));
  client.Send(root_.substr(9) + "page.css HTTP/1.1\r");
  client.Send("\n\r\n");
  EXPECT_THAT(client.UntilEnd(), StartsWith("HTTP/1.1 200 OK"));
}

TEST_F(PageServerTest, WhoSendsNoRequestIsLeft) {
  Start({.request_patience = milliseconds(50)});
  Client silent(port_, "");
  Client slow(port_, "GET / HT");
  silent.UntilEnd();
  slow.UntilEnd();
  EXPECT_TRUE(silent.HasEnded());
  EXPECT_TRUE(slow.HasEnded());
}

TEST_F(PageServerTest, ManySilentConnectionsKeepNobodyOut) {
  std::vector<std::unique_ptr<Client>> silent;
  for (std::size_t i = 0; i < 3 * PageServer::kMaxConnections; ++i)
    silent.push_back(std::make_unique<Client>(port_, "G"));
  EXPECT_THAT(Ask(root_), StartsWith("HTTP/1.1 200 OK"));
}

TEST_F(PageServerTest, WhoSendsWithoutAnEndIsLeftAndKeepsNobodyWaiting) {
  // The server's thread is the last to run, so that there is always more for it to read.
  std::thread([this] {
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), 19);
    Start({.request_patience = milliseconds(500)});
  }).join();
  const Client endless(port_, "GET / HTTP/1.1\r\n\r\n");
  std::atomic<int> ended = 0;
  std::vector<std::thread> senders;
  for (int i = 0; i < 4; ++i) {
    senders.emplace_back([&] {
      const auto deadline = std::chrono::steady_clock::now() + fakes::kTestPatience;
      const std::string much(1UL << 16U, 'x');
      while (std::chrono::steady_clock::now() < deadline) {
        if (endless.Send(much)) continue;
        ++ended;
        return;
      }
    });
  }
  EXPECT_THAT(Ask(root_), StartsWith("HTTP/1.1 200 OK"));
  for (std::thread& sender : senders) sender.join();
  EXPECT_EQ(4, ended);
}

TEST_F(PageServerTest, AReaderGetsWhatThereIsAndWhatComes) {
  feed_.OnUpload("a", kFim, Document(1, "/w/first"));
  const auto reader = Reader();
  EXPECT_THAT(reader->Until("event: books"),
              AllOf(HasSubstr("Content-Type: text/event-stream"), HasSubstr("event: start\ndata: {\"run\":\""),
                    HasSubstr("event: events\nid: "), HasSubstr("/w/first"), HasSubstr("event: health\ndata: []\n\n")));
  feed_.OnUpload("a", kFim, Document(1, "/w/second"));
  const auto before = std::chrono::steady_clock::now();
  EXPECT_THAT(reader->Until("/w/second"), HasSubstr("/w/second"));
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
}

TEST_F(PageServerTest, AReaderThatComesAgainGoesOnBehindItsLastEvent) {
  feed_.OnUpload("a", kFim, Document(1, "/w/first"));
  std::smatch id;
  const std::string got = Reader()->Until("event: books");
  ASSERT_TRUE(std::regex_search(got, id, std::regex("id: ([0-9a-f]{16}\\.1)\n")));
  feed_.OnUpload("a", kFim, Document(1, "/w/second"));
  EXPECT_THAT(Reader("?after=" + id.str(1))->Until("/w/second"),
              AllOf(HasSubstr("/w/second"), Not(HasSubstr("/w/first"))));
  for (const std::string stranger : {"?after=0123456789abcdef.1", "?after=x", "?after=", "?x"}) {
    EXPECT_THAT(Reader(stranger)->Until("/w/second"), HasSubstr("/w/first")) << stranger;
  }
  const std::string run = id.str(1).substr(0, 17);
  for (const std::string number : {"99", "-1", "1x", "99999999999999999999", ""}) {
    EXPECT_THAT(Reader("?after=" + run + number)->Until("/w/second"), HasSubstr("/w/first")) << number;
  }
}

TEST_F(PageServerTest, TenThousandEventsReachAReaderWhole) {
  for (int i = 0; i < 100; ++i) feed_.OnUpload("a", kFim, Document(100));
  const auto reader = Reader();
  const std::string got = reader->Until("\"n\":10000,");
  EXPECT_THAT(got, AllOf(HasSubstr("\"n\":1,"), HasSubstr("\"n\":10000,")));
}

TEST_F(PageServerTest, AReaderThatTakesNothingIsLeftAndCostsTheOthersNothing) {
  Start({.reader_patience = milliseconds(300)});
  const std::string path(3000, 'x');
  for (int i = 0; i < 100; ++i) feed_.OnUpload("a", kFim, Document(50, path));
  const auto slow = Reader("", 4096);
  const auto quick = Reader();
  EXPECT_THAT(quick->Until("\"n\":5000,"), HasSubstr("\"n\":5000,"));
  // It has been left once what it takes at last ends before the last event.
  std::this_thread::sleep_for(milliseconds(600));
  EXPECT_THAT(slow->UntilEnd(), Not(HasSubstr("\"n\":5000,")));
  EXPECT_TRUE(slow->HasEnded());
}

TEST_F(PageServerTest, ManyReadersAreServedAndOneTooManyIsToldSo) {
  std::vector<std::unique_ptr<Client>> readers;
  for (std::size_t i = 0; i < PageServer::kMaxReaders; ++i) {
    readers.push_back(Reader());
    EXPECT_THAT(readers.back()->Until("event: books"), HasSubstr("event: start"));
  }
  EXPECT_THAT(Reader()->UntilEnd(), StartsWith("HTTP/1.1 503"));
  EXPECT_THAT(Ask(root_), StartsWith("HTTP/1.1 200")) << "the page itself says what is wrong then";
  feed_.OnUpload("a", kFim, Document(1, "/w/new"));
  for (const auto& reader : readers) EXPECT_THAT(reader->Until("/w/new"), HasSubstr("/w/new"));
  readers.pop_back();
  EXPECT_TRUE(fakes::Eventually([&] { return Reader()->Until("event: books").starts_with("HTTP/1.1 200"); }));
}

TEST_F(PageServerTest, UploadsOfManyThreadsReachReadersWholeOnceAndInOrder) {
  const auto reader = Reader();
  std::vector<std::thread> agents;
  for (int agent = 0; agent < 4; ++agent) {
    agents.emplace_back([this, agent] {
      for (int i = 0; i < 50; ++i) feed_.OnUpload("agent-" + std::to_string(agent), kFim, Document(5));
    });
  }
  for (std::thread& agent : agents) agent.join();
  const std::string got = reader->Until("\"n\":1000,");
  std::size_t position = 0;
  for (int number = 1; number <= 1000; ++number) {
    const std::string text = "{\"n\":" + std::to_string(number) + ",";
    position = got.find(text, position);
    ASSERT_NE(std::string::npos, position) << text;
    EXPECT_EQ(std::string::npos, got.find(text, position + 1)) << text;
  }
}

TEST_F(PageServerTest, NamesCannotEndAMessage) {
  feed_.OnUpload("a", kFim, Document(1, "/w/x\\n\\nevent: start\\ndata: {}\\n\\n\\r\\u2028"));
  const std::string got = Reader()->Until("event: books");
  EXPECT_EQ(got.find("event: start"), got.rfind("\nevent: start") + 1) << "the one that the server sends";
  EXPECT_THAT(got, HasSubstr(R"(/w/x\n\nevent: start\ndata: {}\n\n\r)"));
}

TEST_F(PageServerTest, ItListensOnLoopbackOnly) {
  // Another address of this machine's loopback: a socket bound to all addresses would answer there.
  EXPECT_FALSE(Client(port_, "", "127.0.0.2").IsConnected());
}

TEST_F(PageServerTest, ItListensElsewhereWhenToldTo) {
  const PageServer server(feed_, {.address = "0.0.0.0"});
  EXPECT_THAT(server.GetUrl(), StartsWith("http://0.0.0.0:"));
}

TEST_F(PageServerTest, AnIpv6AddressStandsInBrackets) {
  const PageServer server(feed_, {.address = "::1"});
  EXPECT_THAT(server.GetUrl(), MatchesRegex("http://\\[::1\\]:[0-9]+/[0-9a-f]+/"));
}

TEST_F(PageServerTest, WhatCannotBeServedThereSaysWhy) {
  const auto fault = [this](PageServer::Settings settings) -> std::string {
    try {
      const PageServer server(feed_, std::move(settings));
    } catch (const std::exception& error) {
      return error.what();
    }
    return "";
  };
  EXPECT_EQ("Not an address to serve the page on: example.org", fault({.address = "example.org"}));
  EXPECT_THAT(
      fault({.port = port_}),
      AllOf(StartsWith("Cannot serve the page on 127.0.0.1 port " + std::to_string(port_)), HasSubstr("in use")));
  EXPECT_THAT(fault({.address = "192.0.2.1"}), HasSubstr("Cannot serve the page on 192.0.2.1"));
}

TEST_F(PageServerTest, ItEndsWithReadersOnTheLine) {
  const auto reader = Reader();
  reader->Until("event: books");
  server_.reset();
  reader->UntilEnd();
  EXPECT_TRUE(reader->HasEnded());
  feed_.OnUpload("a", kFim, Document(1));  // nobody listens any more
}

}  // namespace
}  // namespace zagent::tools
