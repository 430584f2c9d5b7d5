#include "tools/reference-receiver/IocBatch.h"

#include <google/protobuf/stubs/logging.h>

#include <algorithm>
#include <limits>

#include "src/ioc/protobuf/IocEvents.pb.h"
#include "tools/reference-receiver/EventLines.h"

namespace zagent::tools {
namespace {

namespace wire = com::ostrel::ioc::model::proto::event;

constexpr const char* kTarget = "/linuxagentevent/v1/customer/";

std::string Shown(const std::string& text) {
  return text.empty() ? "-" : EscapeBlanks(text);
}

std::string NameOf(wire::EventAction action) {
  const std::string& name = wire::EventAction_Name(action);
  return name.empty() ? std::to_string(action) : name;
}

std::string ActorOf(const wire::Actor& actor) {
  return " actor=" + Shown(actor.imagepath()) + " pid=" + std::to_string(actor.processid()) +
         " user=" + Shown(actor.username());
}

std::string Head(wire::EventAction action, const std::string& kind, const std::string& subject) {
  return "ioc " + NameOf(action) + " " + kind + " " + subject;
}

std::string Describe(const wire::DirectoryEvent& event) {
  return Head(event.eventaction(), "directory", Shown(event.path())) + ActorOf(event.actor());
}

std::string Describe(const wire::FileEvent& event) {
  const std::string path = Shown(event.fullpath());
  return Head(event.eventaction(), "file", event.oldpath().empty() ? path : Shown(event.oldpath()) + " -> " + path) +
         ActorOf(event.actor()) + " size=" + std::to_string(event.size()) + " type=" + Shown(event.type()) +
         " sha256=" + Shown(event.sha256());
}

std::string Describe(const wire::NetworkEvent& event) {
  const bool is_local = event.remoteaddress().empty();
  const std::string port = std::to_string(is_local ? event.localport() : event.remoteport());
  return Head(event.eventaction(), "network",
              Shown(is_local ? event.localaddress() : event.remoteaddress()) + ":" + port) +
         ActorOf(event.actor());
}

std::string Describe(const wire::ProcessEvent& event) {
  return Head(event.eventaction(), "process", Shown(event.imagepath())) + " pid=" + std::to_string(event.processid()) +
         " user=" + Shown(event.username()) + " parent=" + std::to_string(event.parentprocessid()) +
         " actor=" + Shown(event.actor().imagepath()) + " status=" + Shown(event.status()) +
         " arguments=" + (event.arguments().empty() ? "-" : EscapeControls(event.arguments()));
}

std::string Describe(const wire::LoadedModule& event) {
  return Head(event.eventaction(), "module", Shown(event.modulename())) + ActorOf(event.actor());
}

template <typename Events>
void DescribeAll(const Events& events, std::vector<std::string>& lines) {
  for (const auto& event : events) lines.push_back(Describe(event));
}

std::string PathOf(const std::string& target) {
  return target.substr(0, target.find('?'));
}

}  // namespace

std::optional<IocBatch> IocBatch::Decode(const std::string& payload) {
  // What it has to say of a payload is said by whoever asked.
  static const auto kSilenced = google::protobuf::SetLogHandler(nullptr);
  (void)kSilenced;
  wire::IoCEvent message;
  if (payload.size() > std::numeric_limits<int>::max() || !message.ParseFromString(payload)) return std::nullopt;
  if (!message.has_agent() || message.sequenceno() == 0) return std::nullopt;
  const wire::Agent& agent = message.agent();
  IocBatch batch{agent.customerid(), agent.agentid(), message.sequenceno(), {""}};
  DescribeAll(message.directoryevent(), batch.lines);
  DescribeAll(message.fileevent(), batch.lines);
  DescribeAll(message.networkevent(), batch.lines);
  DescribeAll(message.processevent(), batch.lines);
  DescribeAll(message.loadedmodule(), batch.lines);
  batch.lines.front() = "batch " + std::to_string(message.sequenceno()) +
                        " events=" + std::to_string(batch.lines.size() - 1) + " host=" + Shown(agent.computername()) +
                        " boot=" + std::to_string(agent.boottime()) +
                        " quarantine=" + (agent.isquarantine() ? "yes" : "no") + " id=" + Shown(message.protofileid());
  return batch;
}

bool IsIocTarget(const std::string& target) {
  return PathOf(target).find(kTarget) != std::string::npos;
}

bool IsIocTargetOf(const std::string& target, const std::string& customer_id, const std::string& agent_id) {
  const std::string path = PathOf(target);
  const std::string end = kTarget + customer_id + "/agent/" + agent_id;
  return path.size() >= end.size() && path.compare(path.size() - end.size(), end.size(), end) == 0;
}

std::optional<std::string> SequenceNumbers::Note(std::uint64_t number, const std::string& agent_id) {
  const std::lock_guard lock(mutex_);
  const auto [place, is_first] = last_.try_emplace(agent_id, number);
  if (is_first) return std::nullopt;
  const std::uint64_t last = place->second;
  place->second = std::max(last, number);
  if (number == last + 1) return std::nullopt;
  if (number <= last) return "sequence back: " + std::to_string(number) + " after " + std::to_string(last);
  return "sequence gap: " + std::to_string(last + 1) + " to " + std::to_string(number - 1) + " missing before " +
         std::to_string(number);
}

}  // namespace zagent::tools
