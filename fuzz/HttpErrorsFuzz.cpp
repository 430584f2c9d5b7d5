// Feeds one text to whoever reads the body of a refusal: the error parser, with every action handled, and the URL
// upgrader. A JSON object gives a record whose words are those of its code; nothing else gives one.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "common/src/http/HttpErrorParser.h"
#include "common/src/http/HttpRequest.h"
#include "common/src/http/InMemoryHttpResponse.h"
#include "common/src/http/interceptors/UrlUpgraderHttpInterceptor.h"
#include "common/src/util/Json.h"
#include "fuzz/SilentLog.h"

namespace {

namespace common = zagent::common;
using common::HttpErrorParser;

constexpr const char* kUrl = "https://platform.example/HostWarden/fim";

void Expect(bool holds) {
  if (!holds) std::abort();
}

class RefusedRequest final : public common::HttpRequest {
 public:
  RefusedRequest(long code, std::vector<unsigned char> body) {
    response_.SetHttpCode(code);
    response_.UpdatePayload(std::move(body));
  }
  const std::string& GetUrl() const override { return url_; }
  State GetState() const override { return State::Failed; }
  const common::HttpResponse& GetResponse() const override { return response_; }
  void Cancel() override {}
  common::HttpMethod GetMethod() const override { return common::HttpMethod::Post; }

 private:
  const std::string url_ = kUrl;
  common::InMemoryHttpResponse response_;
};

bool IsObject(const std::string& text) {
  rapidjson::Document document;
  common::util::ParseJson(document, text);
  return !document.HasParseError() && document.IsObject();
}

void Parse(const std::string& text, long code) {
  const auto record = HttpErrorParser::ParseErrorPayload(
      kUrl, code, {reinterpret_cast<const unsigned char*>(text.data()), text.size()});
  Expect(record.has_value() == (text.size() <= HttpErrorParser::kMaxParsedBody && IsObject(text)));
  if (!record) return;
  Expect(record->error_text == common::LookUpErrorCode(record->error_code).text);
  Expect(record->raw_payload == text && record->http_status == code);
}

void Process(const std::vector<unsigned char>& body, long code) {
  HttpErrorParser parser;
  int handled = 0;
  for (std::int64_t action = 1; action <= 9; ++action) {
    parser.SetActionHandler(common::ActionWord(action), [&handled, action](const common::HttpErrorRecord& record) {
      Expect(record.action == action);
      ++handled;
    });
  }
  parser.Process(RefusedRequest(code, body));
  Expect(handled <= 1);
}

void Upgrade(const std::vector<unsigned char>& body, long code) {
  const auto states = std::make_shared<common::ModuleUrlStateTable>("agent");
  common::UrlUpgraderHttpInterceptor upgrader(common::DefaultUrlUpgradeRows(), states);
  std::string url = kUrl;
  std::vector<unsigned char> payload;
  common::HttpHeaders headers;
  upgrader.ProcessRequest(url, payload, headers, "POST");
  const auto status = code < 500 ? common::HttpStatus::ClientError : common::HttpStatus::ServerError;
  upgrader.OnAttemptEnded({url, status, code, headers, body});
  const bool route = code == 404 || code == 405 || code == 410 || code == 501;
  Expect((states->Get("FIM") == common::ModuleUrlStateTable::UrlState::Unauth) == route);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zagent::fuzz::SilenceLog();
  const std::vector<unsigned char> body(data, data + size);
  // The last byte, and the length, which a JSON object may end with as it likes.
  const long code = 400 + (size == 0 ? 0 : (data[size - 1] + size) % 200);
  Parse(std::string(body.begin(), body.end()), code);
  Process(body, code);
  Upgrade(body, code);
  return 0;
}
