#include "src/ioc/protobuf/NetworkEvent.h"

#include "src/ioc/protobuf/BatchItem.h"
#include "src/ioc/protobuf/EventActions.h"
#include "src/ioc/protobuf/Exception.h"
#include "src/ioc/protobuf/Messages.h"
#include "src/ioc/protobuf/UniqueId.h"

namespace zagent::ioc::internal::protobuf {
namespace {

namespace wire = com::ostrel::ioc::model::proto::event;

using edr::EventType;

}  // namespace

Report NetworkEvent::Build(const edr::Event& event) const {
  const EventType type = event.GetType();
  if (type != EventType::Accept && type != EventType::Connect && type != EventType::Bind) {
    throw Exception("Invalid action for network event " + std::to_string(event.GetId()));
  }
  const std::string& address = event.GetNetworkAddress();
  const std::string port = std::to_string(event.GetNetworkPort());
  const std::shared_ptr<ProcessInfo> process = tree_.Get(event.GetActorProcessId());
  LogGenerating(event, process->GetImage()->GetPath());
  const std::string process_id = UniqueProcessId(*process);
  const wire::EventAction action = ActionOf(type);

  wire::NetworkEvent message;
  message.set_eventaction(action);
  message.set_timestamp(event.GetTimestamp());
  message.set_uniqueid(UniqueId({process_id, event.GetAction(), address, port}));
  FillActor(*process, ImageOf(event), *message.mutable_actor());
  if (type == EventType::Bind) {
    message.set_localaddress(Repaired(address));
    message.set_localport(static_cast<std::int32_t>(event.GetNetworkPort()));
  } else {
    message.set_remoteaddress(Repaired(address));
    message.set_remoteport(static_cast<std::int32_t>(event.GetNetworkPort()));
  }
  message.set_processid(process->GetPid());
  message.set_usingtcp(true);
  message.set_uniqueprocessid(process_id);
  Report report;
  report.items.push_back({MakeItem(Kind::Network, message)});
  return report;
}

}  // namespace zagent::ioc::internal::protobuf
