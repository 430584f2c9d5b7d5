// Feeds the lines of one text to a request as the header lines of an answer, libcurl's pieces each, then ends the
// attempt. The first byte chooses how the attempt ends and who reads the answer. What is kept is bounded and printable
// where a log may show it, and the request is final.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "common/src/http/DefaultHttpRetryPolicy.h"
#include "common/src/http/HmacConfig.h"
#include "common/src/http/HttpInterceptorBuilder.h"
#include "common/src/http/MutableHttpRequest.h"
#include "common/src/http/UploadAlarms.h"
#include "fuzz/SilentLog.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/TestKeys.h"

namespace {

namespace common = zagent::common;
namespace fakes = zagent::fakes;
using common::HttpStatus;
using State = common::HttpRequest::State;

struct End {
  HttpStatus status;
  long code;
};
constexpr End kEnds[] = {{HttpStatus::Success, 200},       {HttpStatus::ClientError, 404},
                         {HttpStatus::ServerError, 503},   {HttpStatus::NetworkError, 0},
                         {HttpStatus::ProxyError, 407},    {HttpStatus::NotStarted, 302},
                         {HttpStatus::PartialSuccess, 206}};

// Who reads the answer, beside the request itself. All but Upload take for the body what stands behind the first empty
// line, and several answers, one behind the other, where the request goes on.
enum class Reader { Upload, Ranges, Alarms, Signature, VersionThree };
constexpr unsigned kReaders = 5;

constexpr char kNextAnswer = '\x1e';
constexpr std::size_t kRangeSize = 8;

// Its key has signed the text "hello" in the corpus.
constexpr const char* kCertificate =
    "-----BEGIN CERTIFICATE-----\n"
    "MIIBfDCCASGgAwIBAgIUeCiU/LPvvae6ReyAkq9K7mizlKwwCgYIKoZIzj0EAwIw\n"
    "EzERMA8GA1UEAwwIcGxhdGZvcm0wHhcNMjYxMTIyMDY0NDI2WhcNMzYxMTE5MDY0\n"
    "NDI2WjATMREwDwYDVQQDDAhwbGF0Zm9ybTBZMBMGByqGSM49AgEGCCqGSM49AwEH\n"
    "A0IABM1bSHa6eQ7q0F9C9Qw8Eo5e59hiFhzyfEXHtaNSQv0iuZvmVQW7GyZnuhA2\n"
    "1eczkuoSN9HKUT3/XAA2SYlF9jGjUzBRMB0GA1UdDgQWBBR/diri1BlQTWchHBsP\n"
    "vwmjQnLQDTAfBgNVHSMEGDAWgBR/diri1BlQTWchHBsPvwmjQnLQDTAPBgNVHRMB\n"
    "Af8EBTADAQH/MAoGCCqGSM49BAMCA0kAMEYCIQDkkNT7a3SOj6h8qWQYk7BAnzLd\n"
    "OCnOwyH0blmKA6rMkwIhALcfuTDzORG+WNhd3nFk1TBUOHvuGLt0jX9jguZYOSYT\n"
    "-----END CERTIFICATE-----\n";

void Expect(bool holds) {
  if (!holds) std::abort();
}

bool IsPrintable(const std::string& text) {
  for (const char c : text) {
    if (c < ' ' || c > '~') return false;
  }
  return true;
}

const std::string& CertificateFolder() {
  static const fakes::TempFolder folder;
  static const std::string file = folder.Write("platform.pem", kCertificate);
  return folder.Path();
}

std::shared_ptr<const common::HmacConfig> VersionThree() {
  static const auto config = [] {
    const fakes::RsaPair agent = fakes::MakeRsaPair();
    auto keys = std::make_unique<common::util::KeyStore>();
    keys->Add("HmacV3", "a secret that both sides share");
    keys->Add("PlatformPubKey", fakes::MakeRsaPair().public_pem);
    keys->Add("PlatformKeyID", "platform-7");
    keys->Add("AgentRsaPubKey", agent.public_pem);
    keys->Add("AgentRsaPvtKey", agent.private_pem);
    return std::make_shared<const common::HmacConfig>(std::move(keys), false, common::HmacVersion::HmacV3);
  }();
  return config;
}

common::HttpInterceptors ChainOf(Reader reader) {
  common::HttpInterceptorBuilder chain;
  switch (reader) {
    case Reader::Signature:
      chain.AddSigValidation(CertificateFolder());
      break;
    case Reader::VersionThree:
      chain.AddAuth(VersionThree(), common::AuthTag::Tag4, common::AuthTag::Tag1);
      break;
    default:
      chain.AddLzma().AddUrlUpgrader(std::make_shared<common::ModuleUrlStateTable>("agent"));
  }
  return chain.Build();
}

void Answer(common::MutableHttpRequest& request, const std::string& text, std::string_view body, const End& end) {
  request.BeginAttempt();
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t line = text.find('\n', begin);
    const std::size_t next = line == std::string::npos ? text.size() : line + 1;
    request.AddResponseHeader(text.substr(begin, next - begin));
    begin = next;
  }
  (void)request.HasResponseHeader("Z-SRV");
  request.AppendResponseData(body.data(), body.size());
  request.SetStatus(end.status, end.code, 0);
}

std::string_view BodyOf(std::string_view text) {
  const std::size_t end = text.find("\r\n\r\n");
  return end == std::string_view::npos ? std::string_view("", 0) : text.substr(end + 4);
}

void LookAt(const common::HttpResponse& response) {
  Expect(response.GetHeaders().size() <= common::MutableHttpRequest::kMaxResponseHeaders);
  Expect(IsPrintable(response.GetMessage()));
  Expect(response.IsFinalized());
  for (const auto& [name, value] : response.GetHeaders()) {
    Expect(name.find_first_of(":\n") == std::string::npos);
    Expect(value.empty() || (value.front() != ' ' && value.back() != '\r'));
  }
}

void Read(const std::string& text, Reader reader, const End& end) {
  common::HttpRequestSettings settings;
  settings.retry_policy = std::make_unique<common::DefaultHttpRetryPolicy>(0, 0);
  if (reader == Reader::Ranges) settings.range_size = kRangeSize;
  common::MutableHttpRequest request(common::HttpMethod::Get, "https://platform.example/HostWarden/fim", {}, {},
                                     ChainOf(reader), std::move(settings));
  std::size_t begin = 0;
  do {
    const std::size_t next = reader == Reader::Upload ? std::string::npos : text.find(kNextAnswer, begin);
    const std::string answer = text.substr(begin, next == std::string::npos ? next : next - begin);
    Answer(request, answer, reader == Reader::Upload ? std::string_view(answer) : BodyOf(answer), end);
    begin = next == std::string::npos ? text.size() : next + 1;
  } while (request.GetState() == State::WaitingForRetry && begin < text.size());
  if (request.GetState() == State::WaitingForRetry) {
    Expect(end.status == HttpStatus::PartialSuccess && reader == Reader::Ranges);
    return;
  }
  const common::HttpResponse& response = request.GetResponse();
  LookAt(response);
  // Nobody can sign an answer to a request that has just been made up.
  Expect(reader != Reader::VersionThree || request.GetState() == State::Failed);
  if (reader == Reader::Alarms) {
    common::UploadAlarms alarms;
    alarms.OnAnswer(response, common::UploadSource{}, "id");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zagent::fuzz::SilenceLog();
  if (size == 0) return 0;
  const auto reader = static_cast<Reader>(data[0] / std::size(kEnds) % kReaders);
  const End end = reader == Reader::Alarms ? End{HttpStatus::ClientError, 401} : kEnds[data[0] % std::size(kEnds)];
  Read(std::string(data + 1, data + size), reader, end);
  return 0;
}
