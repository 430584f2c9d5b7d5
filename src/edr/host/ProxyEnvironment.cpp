#include "src/edr/host/ProxyEnvironment.h"

#include <cerrno>
#include <cstdlib>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"

namespace zagent::edr::host {

void SetProxyEnvironment(const common::CommonConfig& config) {
  ZLOG_INFO("Setting the proxy environment variables");
  for (const char* name : {"ostrel_https_tls_proxy", "ostrel_https_proxy", "https_proxy", "http_proxy"}) {
    if (!config.HasEnvironmentVariable(name)) continue;
    // No other thread reads the environment yet: libcurl and its resolver start behind this step.
    if (setenv(name, config.GetEnvironmentVariable(name).c_str(), 1) != 0) {  // NOLINT(concurrency-mt-unsafe)
      ZLOG_ERROR("Failed to set the environment variable " << name << ": " << common::util::ErrnoText(errno));
    }
  }
}

}  // namespace zagent::edr::host
