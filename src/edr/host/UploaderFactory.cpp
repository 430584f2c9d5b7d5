#include "src/edr/host/UploaderFactory.h"

#include <utility>

#include "common/src/http/HttpUploader.h"
#include "common/src/util/Log.h"
#include "common/src/util/UrlScheme.h"

namespace zagent::edr::host {

UploaderFactory::UploaderFactory(const common::CommonConfig& config, common::HttpService& service,
                                 std::shared_ptr<const common::HmacConfig> keys)
    : config_(config),
      service_(service),
      keys_(std::move(keys)),
      url_states_(std::make_shared<common::ModuleUrlStateTable>(config.GetAgentId())) {}

std::unique_ptr<common::Uploader> UploaderFactory::Make(const std::string& target, const std::string& type) {
  WarnOfPlainHttp(target, type);
  common::HttpUploader::Settings settings;
  settings.url = target;
  settings.customer_id = config_.GetCustomerId();
  settings.agent_id = config_.GetAgentId();
  settings.agent_version = config_.GetAgentVersion();
  settings.connection_timeout = config_.GetConnectionTimeout();
  settings.request_timeout = config_.GetRequestTimeout();
  settings.alarms = alarms_;
  settings.url_states = url_states_;
  return std::make_unique<common::HttpUploader>(service_, keys_, std::move(settings));
}

void UploaderFactory::WarnOfPlainHttp(const std::string& target, const std::string& type) {
  if (warned_ || common::util::UrlScheme(target) != "http") return;
  warned_ = true;
  ZLOG_WARNING("Uploads of " << type << " go to " << target
                             << " without TLS: nothing is private, and under V2 the body is not signed");
}

}  // namespace zagent::edr::host
