#include "src/health/AHSSettings.h"

#include <Poco/URI.h>

namespace zagent::health {
namespace {

std::string PathPart(const std::string& text) {
  std::string part;
  Poco::URI::encode(text, "/?#", part);
  return part;
}

}  // namespace

std::string AHSSettings::GetUploadUrl() const {
  std::string url = service_url;
  while (!url.empty() && url.back() == '/') url.pop_back();
  return url + "/v1/customer/" + PathPart(customer_id) + "/agent/" + PathPart(agent_id) + "/status";
}

}  // namespace zagent::health
