// Feeds the lines of one text to a request as the header lines of an answer, libcurl's pieces each, then ends the
// attempt. The first byte chooses how. What is kept is bounded and printable where a log may show it, and the request
// is final.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "common/src/http/DefaultHttpRetryPolicy.h"
#include "common/src/http/HttpInterceptorBuilder.h"
#include "common/src/http/MutableHttpRequest.h"
#include "fuzz/SilentLog.h"

namespace {

namespace common = zagent::common;
using common::HttpStatus;

struct End {
  HttpStatus status;
  long code;
};
constexpr End kEnds[] = {{HttpStatus::Success, 200},       {HttpStatus::ClientError, 404},
                         {HttpStatus::ServerError, 503},   {HttpStatus::NetworkError, 0},
                         {HttpStatus::ProxyError, 407},    {HttpStatus::NotStarted, 302},
                         {HttpStatus::PartialSuccess, 206}};

void Expect(bool holds) {
  if (!holds) std::abort();
}

bool IsPrintable(const std::string& text) {
  for (const char c : text) {
    if (c < ' ' || c > '~') return false;
  }
  return true;
}

void Answer(const std::string& text, const End& end) {
  common::HttpInterceptorBuilder chain;
  chain.AddLzma().AddUrlUpgrader(std::make_shared<common::ModuleUrlStateTable>("agent"));
  common::HttpRequestSettings settings;
  settings.retry_policy = std::make_unique<common::DefaultHttpRetryPolicy>(0, 0);
  common::MutableHttpRequest request(common::HttpMethod::Get, "https://platform.example/HostWarden/fim", {}, {},
                                     chain.Build(), std::move(settings));
  request.BeginAttempt();
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t line = text.find('\n', begin);
    const std::size_t next = line == std::string::npos ? text.size() : line + 1;
    request.AddResponseHeader(text.substr(begin, next - begin));
    begin = next;
  }
  (void)request.HasResponseHeader("Z-SRV");
  request.AppendResponseData(text.data(), text.size());
  request.SetStatus(end.status, end.code, 0);
  if (request.GetState() == common::HttpRequest::State::WaitingForRetry) {
    Expect(end.status == HttpStatus::PartialSuccess);
    return;
  }
  const common::HttpResponse& response = request.GetResponse();
  Expect(response.GetHeaders().size() <= common::MutableHttpRequest::kMaxResponseHeaders);
  Expect(IsPrintable(response.GetMessage()));
  Expect(response.IsFinalized());
  for (const auto& [name, value] : response.GetHeaders()) {
    Expect(name.find_first_of(":\n") == std::string::npos);
    Expect(value.empty() || (value.front() != ' ' && value.back() != '\r'));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zagent::fuzz::SilenceLog();
  if (size == 0) return 0;
  Answer(std::string(data + 1, data + size), kEnds[data[0] % std::size(kEnds)]);
  return 0;
}
