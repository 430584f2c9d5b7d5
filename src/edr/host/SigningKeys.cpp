#include "src/edr/host/SigningKeys.h"

#include <stdexcept>

#include "common/src/util/Cleanse.h"
#include "common/src/util/Log.h"

namespace zagent::edr::host {
namespace {

common::HmacVersion ChooseHmacVersion(const common::CommonConfig& config) {
  try {
    const common::HmacVersion version = common::ParseHmacVersion(config.GetHmacVersion());
    if (version == common::HmacVersion::HmacV1 || version == common::HmacVersion::HmacV2) return version;
  } catch (const std::invalid_argument&) {
    // A version that nobody knows is replaced like one that this process does not support.
  }
  const auto version = config.IsFedramp() ? common::HmacVersion::HmacV1 : common::HmacVersion::HmacV2;
  ZLOG_WARNING("EDR subprocess only supports HmacV1/V2 - using " << common::ToString(version));
  return version;
}

}  // namespace

std::shared_ptr<const common::HmacConfig> TakeSigningKeys(common::CommonConfig& config) {
  std::string activation_id = config.GetActivationId();
  const common::util::ScopedCleanse cleanse(activation_id);
  config.ForgetActivationId();
  return std::make_shared<const common::HmacConfig>(config.GetCustomerId(), config.GetAgentId(), activation_id,
                                                    config.IsFedramp(), ChooseHmacVersion(config));
}

}  // namespace zagent::edr::host
