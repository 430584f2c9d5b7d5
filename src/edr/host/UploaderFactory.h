#pragma once

#include <memory>
#include <string>

#include "common/src/config/CommonConfig.h"
#include "common/src/http/HmacConfig.h"
#include "common/src/http/HttpService.h"
#include "common/src/http/ModuleUrlStateTable.h"
#include "common/src/http/UploadAlarms.h"
#include "common/src/http/Uploader.h"

namespace zagent::edr::host {

// Makes the uploaders of all components, so that each goes the same way to the platform: identity, time-outs and keys
// from the common configuration, one HTTP service, one set of alarms, one table of authenticated URLs. On the main
// thread.
class UploaderFactory {
 public:
  // `service` outlives the uploaders.
  UploaderFactory(const common::CommonConfig& config, common::HttpService& service,
                  std::shared_ptr<const common::HmacConfig> keys);

  // `target`: the absolute URL of the component's uploads. `type`: what it uploads, for log lines ("FIM", "IOC",
  // "health status"). The first target that is not https is a warning: nothing is private on the way then.
  [[nodiscard]] std::unique_ptr<common::Uploader> Make(const std::string& target, const std::string& type);

 private:
  void WarnOfPlainHttp(const std::string& target, const std::string& type);

  const common::CommonConfig& config_;
  common::HttpService& service_;
  const std::shared_ptr<const common::HmacConfig> keys_;
  const std::shared_ptr<common::ModuleUrlStateTable> url_states_;
  const std::shared_ptr<common::UploadAlarms> alarms_ = std::make_shared<common::UploadAlarms>();
  bool warned_ = false;
};

}  // namespace zagent::edr::host
