#include "common/src/http/DefaultHttpPostProcessor.h"

#include <array>

#include "common/src/http/HttpService.h"
#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

using Action = HttpErrorAction;

constexpr std::array kRecoveryActions = {Action::Revoke, Action::ReprovisionWithSameAgentId,
                                         Action::ReprovisionWithDifferentAgentId};
constexpr std::array kLoggedActions = {Action::RotateSecret,     Action::RenewPlatformKey, Action::RegisterPublicKey,
                                       Action::SynchronizeClock, Action::UploadMetadata,   Action::RaiseAuthentication};

std::string Word(Action action) {
  return ActionWord(static_cast<std::int64_t>(action));
}

void LogAction(const HttpErrorRecord& record) {
  ZLOG_WARNING("The platform asks the agent for '" << ActionWord(record.action) << "': " << record.error_text);
}

}  // namespace

bool ConfigureDefaultHttpPostProcessor(HttpService& service, const HttpPostProcessor::ActionHandler& recovery) {
  if (!recovery) {
    ZLOG_ERROR("ConfigureDefaultHttpPostProcessor: Mandatory Http Error Recovery Handler not provided");
    return false;
  }
  auto parser = std::make_unique<HttpErrorParser>();
  for (const Action action : kRecoveryActions) parser->SetActionHandler(Word(action), recovery);
  for (const Action action : kLoggedActions) parser->SetActionHandler(Word(action), LogAction);
  service.SetPostProcessor(std::move(parser));
  ZLOG_INFO("Configured default http post processing action handlers with HttpService");
  return true;
}

void LogRecoveryAction(const HttpErrorRecord& record) {
  ZLOG_ERROR("The platform asks the agent for '" << ActionWord(record.action) << "': " << record.error_text);
}

}  // namespace zagent::common
