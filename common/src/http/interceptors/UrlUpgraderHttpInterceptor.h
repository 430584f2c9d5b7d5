#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/src/http/HttpInterceptor.h"
#include "common/src/http/ModuleUrlStateTable.h"

namespace Poco {
class RegularExpression;
}

namespace zagent::common {

// One row: URLs whose path (and query) the pattern fits belong to the module, and `prefix` before the path makes the
// authenticated form.
struct UrlUpgradeRow {
  std::string pattern;  // a Perl regular expression
  std::string module;
  std::string prefix;
};

// The rows of the modules that upload by themselves, FIM, IOC and AHS, below the base "/HostWarden": a service URL with
// that base is a platform that may have the authenticated forms.
const std::vector<UrlUpgradeRow>& DefaultUrlUpgradeRows();

// Sends a module's requests to the authenticated form of their URL, and back to the plain one when the platform has no
// such route: an attempt that ends with 404, 405, 410 or 501 moves the module to the plain URL from its next attempt
// on, for a day at least. Whether there is a next attempt, the retry policy alone decides. Stands before the signature,
// which speaks of the URL that is sent.
class UrlUpgraderHttpInterceptor final : public HttpInterceptor {
 public:
  // `states` is shared by all uploads. Throws HttpInterceptorException for a pattern that is no regular expression.
  UrlUpgraderHttpInterceptor(const std::vector<UrlUpgradeRow>& rows, std::shared_ptr<ModuleUrlStateTable> states);

  [[nodiscard]] std::unique_ptr<HttpInterceptor> Clone() const override;
  // A URL that cannot be parsed passes as one that fits no row.
  void ProcessRequest(std::string& url, std::vector<unsigned char>& payload, HttpHeaders& headers,
                      const std::string& method) override;
  ChunkResult ProcessResponseChunk(const std::vector<unsigned char>& chunk,
                                   std::vector<unsigned char>& output) override;
  void ProcessResponse(const std::string& url, MutableHttpResponse& response) override;
  void OnAttemptEnded(const HttpAttempt& attempt) override;

 private:
  struct Row {
    std::shared_ptr<const Poco::RegularExpression> pattern;
    std::string module;
    std::string prefix;
  };

  [[nodiscard]] const Row* FindRow(const std::string& url) const;

  std::shared_ptr<const std::vector<Row>> rows_;
  std::shared_ptr<ModuleUrlStateTable> states_;
  std::optional<std::string> upgraded_module_;  // of the attempt in flight, when it went to the authenticated URL
};

}  // namespace zagent::common
