#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>

#include "common/src/http/DefaultHttpRetryPolicy.h"
#include "common/src/http/HttpException.h"
#include "common/src/http/HttpService.h"
#include "common/src/util/UniqueFd.h"
#include "tests/fakes/BlackHole.h"
#include "tests/fakes/FakeHttpServer.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::common {
namespace {

using namespace std::chrono_literals;
using fakes::FakeHttpServer;
using State = HttpRequest::State;

// A cancel is felt at once in every stage of a transfer, ends the request and begins no other attempt.
class CancelTest : public ::testing::Test {
 protected:
  void SetUp() override { service_.Start(); }

  std::shared_ptr<MutableHttpRequest> Post(const std::string& url, HttpProxy proxy = HttpProxy()) {
    HttpRequestSettings settings;
    settings.retry_policy = std::make_unique<DefaultHttpRetryPolicy>(3, 0);
    auto request =
        std::make_shared<MutableHttpRequest>(HttpMethod::Post, url, HttpHeaders(), std::vector<unsigned char>{'x'},
                                             HttpInterceptors(), std::move(settings), std::move(proxy));
    service_.Enqueue(request);
    return request;
  }

  void ExpectCancelled(MutableHttpRequest& request) {
    EXPECT_EQ(State::InFlight, request.GetState());
    const auto begin = std::chrono::steady_clock::now();
    request.Cancel();
    EXPECT_THROW(request.GetResponse(), HttpException);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s) << "a transfer's wait is five seconds";
    EXPECT_EQ(State::Cancelled, request.GetState());
    EXPECT_EQ(1, log_.Count("Initiating HTTP request for "));
    EXPECT_TRUE(log_.Has("HTTP request for " + request.GetUrl() + " was aborted"));
  }

  fakes::LogCapture log_;
  HttpService service_{""};
};

TEST_F(CancelTest, EndsARequestThatIsConnecting) {
  const fakes::BlackHole host;
  const auto request = Post(host.Url());
  ASSERT_TRUE(fakes::Eventually([&] { return log_.Has("Using proxy :"); }));
  ExpectCancelled(*request);
}

// Accepts a connection, reads its first bytes and says nothing.
TEST_F(CancelTest, EndsARequestInTheMiddleOfItsTlsHandshake) {
  const util::UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  ASSERT_EQ(0, bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), size));
  ASSERT_EQ(0, listen(listener.Get(), 1));
  ASSERT_EQ(0, getsockname(listener.Get(), reinterpret_cast<sockaddr*>(&address), &size));
  const auto request = Post("https://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/");
  const util::UniqueFd connection(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  char hello = 0;
  ASSERT_EQ(1, read(connection.Get(), &hello, 1));
  EXPECT_EQ(22, hello) << "a handshake record";
  ExpectCancelled(*request);
}

TEST_F(CancelTest, EndsARequestThatWaitsForItsTunnel) {
  FakeHttpServer proxy({FakeHttpServer::kHang});
  const auto request = Post("https://platform.example/", HttpProxy({"http://" + proxy.Address()}, false));
  proxy.AwaitRequests(1);
  EXPECT_EQ("CONNECT", proxy.Requests().at(0).method);
  ExpectCancelled(*request);
  EXPECT_EQ(1U, proxy.Requests().size());
}

TEST_F(CancelTest, EndsARequestInTheMiddleOfTheAnswersBody) {
  FakeHttpServer server(
      {std::string("HTTP/1.1 200 OK\r\nContent-Length: 100\r\nX-Begun: yes\r\n\r\nhalf") + FakeHttpServer::kHang});
  const auto request = Post(server.Url());
  ASSERT_TRUE(fakes::Eventually([&] { return request->HasResponseHeader("X-Begun"); }));
  ExpectCancelled(*request);
  EXPECT_EQ(1U, server.Requests().size());
}

}  // namespace
}  // namespace zagent::common
