#include "common/src/http/interceptors/UrlUpgraderHttpInterceptor.h"

#include <Poco/Exception.h>
#include <Poco/RegularExpression.h>
#include <Poco/URI.h>

#include <algorithm>
#include <array>

#include "common/src/http/HttpErrorParser.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

using UrlState = ModuleUrlStateTable::UrlState;

constexpr std::array<long, 4> kRouteFailures = {404, 405, 410, 501};
constexpr std::array<long, 2> kAuthFailures = {401, 403};
constexpr std::size_t kShownBody = 512;

template <typename Codes>
bool IsOneOf(const Codes& codes, long code) {
  return std::find(codes.begin(), codes.end(), code) != codes.end();
}

std::string ShownBody(const HttpAttempt& attempt) {
  return PrintableText({reinterpret_cast<const char*>(attempt.body.data()), attempt.body.size()}, kShownBody);
}

// Where the path of a URL begins: behind the host.
std::size_t PathOf(const std::string& url) {
  const std::size_t scheme = url.find("://");
  return std::min(url.find_first_of("/?#", scheme == std::string::npos ? 0 : scheme + 3), url.size());
}

}  // namespace

const std::vector<UrlUpgradeRow>& DefaultUrlUpgradeRows() {
  static const std::vector<UrlUpgradeRow> rows = {
      {"^/HostWarden(/v1)?/fim([/?].*)?$", "FIM", "/Ostl"},
      {"^/HostWarden/linuxagentevent/v1/customer/[^?]+/agent/[^?]+$", "IOC", "/Ostl"},
      {"^/HostWarden/v1/customer/[^?]+/agent/[^?]+/status$", "AHS", "/Ostl"},
  };
  return rows;
}

UrlUpgraderHttpInterceptor::UrlUpgraderHttpInterceptor(const std::vector<UrlUpgradeRow>& rows,
                                                       std::shared_ptr<ModuleUrlStateTable> states)
    : states_(std::move(states)) {
  auto compiled = std::make_shared<std::vector<Row>>();
  try {
    for (const UrlUpgradeRow& row : rows) {
      compiled->push_back({std::make_shared<const Poco::RegularExpression>(row.pattern), row.module, row.prefix});
    }
  } catch (const Poco::Exception& error) {
    throw HttpInterceptorException("Invalid URL pattern: " + error.displayText());
  }
  rows_ = std::move(compiled);
}

std::unique_ptr<HttpInterceptor> UrlUpgraderHttpInterceptor::Clone() const {
  return std::make_unique<UrlUpgraderHttpInterceptor>(*this);
}

const UrlUpgraderHttpInterceptor::Row* UrlUpgraderHttpInterceptor::FindRow(const std::string& url) const {
  try {
    const std::string path = Poco::URI(url).getPathEtc();
    for (const Row& row : *rows_) {
      if (row.pattern->match(path)) return &row;
    }
  } catch (const Poco::Exception&) {  // NOLINT(bugprone-empty-catch)
    // Whoever sends it will tell.
  }
  return nullptr;
}

void UrlUpgraderHttpInterceptor::ProcessRequest(std::string& url, std::vector<unsigned char>&, HttpHeaders&,
                                                const std::string&) {
  upgraded_module_.reset();
  const Row* row = FindRow(url);
  if (row == nullptr) {
    ZLOG_DEBUG("URL: " << url << " not qualified to upgrade");
    return;
  }
  if (!states_->IsAuthDue(row->module)) return;
  url.insert(PathOf(url), row->prefix);
  states_->Set(row->module, UrlState::Auth);
  upgraded_module_ = row->module;
}

HttpInterceptor::ChunkResult UrlUpgraderHttpInterceptor::ProcessResponseChunk(const std::vector<unsigned char>&,
                                                                              std::vector<unsigned char>&) {
  return ChunkResult::Continue;
}

void UrlUpgraderHttpInterceptor::ProcessResponse(const std::string&, MutableHttpResponse&) {}

void UrlUpgraderHttpInterceptor::OnAttemptEnded(const HttpAttempt& attempt) {
  if (!upgraded_module_ || !HttpErrorParser::IsErrorStatus(attempt.http_code)) return;
  // What a proxy says about the route is no word of the platform.
  if (attempt.is_proxys_own) return;
  const std::string& module = *upgraded_module_;
  if (IsOneOf(kRouteFailures, attempt.http_code)) {
    ZLOG_WARNING("Module: " << module
                            << " auth route upgrade failed, fallback to unauthenticated url, server response: "
                            << attempt.http_code << " " << ShownBody(attempt));
    states_->Set(module, UrlState::Unauth);
    return;
  }
  if (IsOneOf(kAuthFailures, attempt.http_code)) {
    ZLOG_ERROR("Module: " << module << " request auth failed, status: " << attempt.http_code
                          << ", server response: " << ShownBody(attempt));
  }
  const auto record = HttpErrorParser::ParseErrorPayload(attempt.url, attempt.http_code, attempt.body);
  ZLOG_INFO("Module: " << module
                       << " received error: " << (record ? record->error_text : std::to_string(attempt.http_code))
                       << ", Skipped URL fallback");
}

}  // namespace zagent::common
