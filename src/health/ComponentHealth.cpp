#include "src/health/ComponentHealth.h"

#include <utility>

namespace zagent::health {
namespace {

constexpr std::int64_t kIocOffset = 100;

}  // namespace

const char* ComponentHealth::Name() const {
  return kind_ == Kind::Fim ? "FIM" : "IOC";
}

StatusCode ComponentHealth::CodeFor(StatusCode fim) const {
  return kind_ == Kind::Fim ? fim : static_cast<StatusCode>(static_cast<std::int64_t>(fim) + kIocOffset);
}

void ComponentHealth::Tell(StatusCode fim, const std::string& context, State state, Fields fields,
                           Fields details) const {
  reporter_.Report({CodeFor(fim), context, state, std::move(fields), std::move(details)});
}

void ComponentHealth::Started() const {
  Tell(StatusCode::FimComponent, Name(), State::Good, {{"component", "started"}});
}

void ComponentHealth::Stopped() const {
  Tell(StatusCode::FimComponent, Name(), State::Bad, {{"component", "stopped"}});
}

void ComponentHealth::Disabled() const {
  Tell(StatusCode::FimComponent, Name(), State::Bad, {{"component", "disabled"}});
}

void ComponentHealth::Failed(const std::string& reason) const {
  Tell(StatusCode::FimComponent, Name(), State::Bad, {{"component", "failed"}, {"reason", reason}});
}

void ComponentHealth::ManifestApplied(const std::string& path) const {
  Tell(StatusCode::FimManifest, path, State::Good, {{"manifest", "applied"}});
}

void ComponentHealth::ManifestFailed(const std::string& path, const std::string& reason) const {
  Tell(StatusCode::FimManifest, path, State::Bad, {{"manifest", "failed"}, {"reason", reason}});
}

void ComponentHealth::Uploaded(bool succeeded, const std::string& http_status,
                               const std::string& correlation_id) const {
  Tell(StatusCode::FimUpload, Name(), succeeded ? State::Good : State::Bad, {{"httpStatus", http_status}},
       {{"correlationId", correlation_id}});
}

}  // namespace zagent::health
