// The options that no test over a socket could see in reasonable time, or at all. What libcurl is told passes through
// here on its way.
#include "common/src/http/HttpTransfer.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <map>

#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace {

// The options of the transfers that this thread makes, while a test looks at them.
thread_local std::map<CURLoption, std::intptr_t>* t_options = nullptr;

}  // namespace

#undef curl_easy_setopt
// Takes the place of the library's own function in this program.
extern "C" CURLcode curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  using Function = CURLcode (*)(CURL*, CURLoption, ...);
  static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "curl_easy_setopt"));
  va_list arguments;
  va_start(arguments, option);
  void* value = va_arg(arguments, void*);  // a long, a pointer or a curl_off_t: each takes as much
  va_end(arguments);
  if (t_options != nullptr) (*t_options)[option] = reinterpret_cast<std::intptr_t>(value);
  return real(handle, option, value);
}

namespace zagent::common {
namespace {

class HttpTransferTest : public ::testing::Test {
 protected:
  using Options = std::map<CURLoption, std::intptr_t>;

  static Options OptionsOf(HttpRequestSettings settings, const std::vector<std::string>& proxies = {},
                           const std::string& ca_path = "") {
    auto request = std::make_shared<MutableHttpRequest>(HttpMethod::Post, "https://platform.example/v1", HttpHeaders(),
                                                        std::vector<unsigned char>(), HttpInterceptors(),
                                                        std::move(settings), HttpProxy(proxies));
    Options options;
    t_options = &options;
    const HttpTransfer transfer(std::move(request), ca_path);
    t_options = nullptr;
    return options;
  }

  static std::pair<std::intptr_t, std::intptr_t> BoundsOf(std::uint64_t connection, std::uint64_t request) {
    HttpRequestSettings settings;
    settings.connection_timeout = connection;
    settings.request_timeout = request;
    const Options options = OptionsOf(std::move(settings));
    return {options.at(CURLOPT_CONNECTTIMEOUT), options.at(CURLOPT_TIMEOUT)};
  }

  fakes::LogCapture log_;
};

TEST_F(HttpTransferTest, GivesConnectionAndTransferTheBoundsThatItWasTold) {
  EXPECT_EQ(std::pair(std::intptr_t{7}, std::intptr_t{9}), BoundsOf(7, 9));
}

TEST_F(HttpTransferTest, WaitsThirtySecondsToConnectAndAMinuteInAllWhenNobodySaysMore) {
  EXPECT_EQ(std::pair(std::intptr_t{30}, std::intptr_t{60}), BoundsOf(0, 0));
  EXPECT_EQ(std::pair(std::intptr_t{30}, std::intptr_t{9}), BoundsOf(0, 9));
  EXPECT_EQ(std::pair(std::intptr_t{7}, std::intptr_t{60}), BoundsOf(7, 0));
}

TEST_F(HttpTransferTest, NeverWaitsWithoutABoundBecauseANumberIsTooLarge) {
  const std::intptr_t largest = INT_MAX / 1000;
  EXPECT_EQ(std::pair(largest, largest), BoundsOf(INT_MAX, UINT64_MAX));
  EXPECT_EQ(std::pair(largest, largest), BoundsOf(INT_MAX / 1000, INT_MAX / 1000 + 1));
}

TEST_F(HttpTransferTest, SetsWhatEveryTransferNeeds) {
  const Options options = OptionsOf({});
  EXPECT_EQ(1, options.at(CURLOPT_NOSIGNAL)) << "there are other threads";
  EXPECT_EQ(0, options.at(CURLOPT_SSL_ENABLE_ALPN));
  EXPECT_EQ(1, options.at(CURLOPT_TCP_KEEPALIVE));
  EXPECT_EQ(1, options.at(CURLOPT_SSL_VERIFYPEER));
  EXPECT_EQ(2, options.at(CURLOPT_SSL_VERIFYHOST));
  EXPECT_EQ(1, options.at(CURLOPT_PATH_AS_IS));
  EXPECT_EQ(0, options.at(CURLOPT_NOPROGRESS)) << "or nobody looks for a cancel";
  EXPECT_EQ(0, options.count(CURLOPT_FOLLOWLOCATION)) << "a signed request goes nowhere else";
#if LIBCURL_VERSION_NUM >= 0x075700
  EXPECT_EQ(0, options.at(CURLOPT_CA_CACHE_TIMEOUT));
  EXPECT_EQ(1, options.at(CURLOPT_QUICK_EXIT));
#endif
}

TEST_F(HttpTransferTest, VerifiesNobodyOnlyWhenToldSo) {
  HttpRequestSettings settings;
  settings.verify_ssl = false;
  const Options options = OptionsOf(std::move(settings));
  EXPECT_EQ(0, options.at(CURLOPT_SSL_VERIFYPEER));
  EXPECT_EQ(0, options.at(CURLOPT_SSL_VERIFYHOST));
}

TEST_F(HttpTransferTest, TrustsAFileOrAFolderAndNeverTheSystemBesideIt) {
  const fakes::TempFolder folder;
  const std::string file = folder.Write("ca.pem", "");
  const Options by_file = OptionsOf({}, {"https://proxy.example"}, file);
  EXPECT_NE(0, by_file.at(CURLOPT_CAINFO));
  EXPECT_EQ(0, by_file.at(CURLOPT_CAPATH));
  EXPECT_NE(0, by_file.at(CURLOPT_PROXY_CAINFO));
  EXPECT_EQ(0, by_file.at(CURLOPT_PROXY_CAPATH));
  const Options by_folder = OptionsOf({}, {"https://proxy.example"}, folder.Path());
  EXPECT_EQ(0, by_folder.at(CURLOPT_CAINFO));
  EXPECT_NE(0, by_folder.at(CURLOPT_CAPATH));
  EXPECT_EQ(0, by_folder.at(CURLOPT_PROXY_CAINFO));
  EXPECT_NE(0, by_folder.at(CURLOPT_PROXY_CAPATH));
}

TEST_F(HttpTransferTest, TellsTheTypeOfAProxy) {
  EXPECT_EQ(CURLPROXY_HTTP, OptionsOf({}, {"proxy.example:3128"}).at(CURLOPT_PROXYTYPE));
  EXPECT_EQ(CURLPROXY_HTTPS, OptionsOf({}, {"https://proxy.example"}).at(CURLOPT_PROXYTYPE));
}

}  // namespace
}  // namespace zagent::common
