#include "common/src/http/interceptors/XAuth.h"

#include <Poco/RegularExpression.h>

#include <array>

#include "common/src/http/HttpException.h"

namespace zagent::common {
namespace {

constexpr std::size_t kMaxTarget = 2048;

struct PathRow {
  Poco::RegularExpression path;
  int module;
};

const std::array<PathRow, 7>& PathRows() {
  static const std::array<PathRow, 7> rows = {{
      {{"^/HostWarden/sm/platform/scriptresult$"}, 11},
      {{"^/HostWarden/edr_rs_linux/command_execution$"}, 12},
      {{"^/HostWarden/collection/v1/ca/actkeychange$"}, 13},
      {{"^/HostWarden/collection/v1/ca/actkeychange/status$"}, 13},
      {{"^/HostWarden/collection/v1/customer/[0-9a-f-]{36}/agent/[0-9a-f-]{36}/manifest/[0-9a-f-]{36}/command/"
        "[0-9a-f-]{36}/fragment/([0-9]+)(/finalize)?$"},
       13},
      {{"^/HostWarden/avc/customer/[0-9a-f-]{36}/certificateDetails/[0-9a-f-]{36}$"}, 14},
      {{"^/HostWarden/edr/forensic/v1/customer/[0-9a-f-]{36}/agent/[0-9a-f-]{36}/manifest/[0-9a-f-]{36}/.+$"}, 15},
  }};
  return rows;
}

constexpr int kFirstModule = 11;
constexpr std::array<const char*, 5> kKeyNames = {"XauthSM", "XauthRS", "XauthLC", "KAVC", "KFORENSIC"};

}  // namespace

std::optional<int> FindXAuthModule(const std::string& target) {
  if (target.size() > kMaxTarget) return std::nullopt;
  for (const PathRow& row : PathRows()) {
    if (row.path.match(target)) return row.module;
  }
  return std::nullopt;
}

const char* XAuthKeyName(int module) {
  if (module < kFirstModule || module >= kFirstModule + static_cast<int>(kKeyNames.size())) {
    throw HttpInterceptorException("Invalid X-Auth module: " + std::to_string(module));
  }
  return kKeyNames[static_cast<std::size_t>(module - kFirstModule)];
}

}  // namespace zagent::common
