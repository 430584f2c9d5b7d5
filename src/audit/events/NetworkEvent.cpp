#include "src/audit/events/NetworkEvent.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <stdexcept>

namespace zagent::audit::internal {
namespace {

struct Call {
  std::uint32_t syscall;
  edr::EventType type;
  const char* action;
};
constexpr std::array kCalls = {Call{42, edr::EventType::Connect, "Connect"}, Call{43, edr::EventType::Accept, "Accept"},
                               Call{49, edr::EventType::Bind, "Bind"}};

const Call* FindCall(std::uint32_t syscall) {
  const auto* found =
      std::find_if(kCalls.begin(), kCalls.end(), [syscall](const Call& call) { return call.syscall == syscall; });
  return found != kCalls.end() ? found : nullptr;
}

}  // namespace

NetworkEvent::NetworkEvent(RecordSource& source) {
  Feed(source, KindsOf(record_type::kSyscall, record_type::kSockaddr));
}

std::unique_ptr<edr::Event> NetworkEvent::Clone() const {
  return std::unique_ptr<edr::Event>(new NetworkEvent(*this));
}

edr::EventType NetworkEvent::GetType() const {
  const Call* call = FindCall(Syscall());
  if (call == nullptr) throw std::runtime_error("Invalid syscall for Network event");
  return call->type;
}

std::string NetworkEvent::GetAction() const {
  const Call* call = FindCall(Syscall());
  return call != nullptr ? call->action : "";
}

void NetworkEvent::ParseRecord(int type, const edr::RecordFields& fields) {
  if (type == record_type::kSockaddr) {
    ParseAddress(fields.Find(edr::RecordField::Saddr));
  } else {
    SyscallEvent::ParseRecord(type, fields);
  }
}

// As auparse interprets it: "{ saddr_fam=inet laddr=10.0.0.1 lport=443 }". What other families have behind their family
// is not read, so that they fail for what they are.
void NetworkEvent::ParseAddress(std::string_view text) {
  while (!text.empty() && (family_.empty() || IsInternet())) {
    const std::size_t end = std::min(text.find(' '), text.size());
    ParseToken(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

void NetworkEvent::ParseToken(std::string_view token) {
  const std::size_t equals = token.find('=');
  if (equals == 0 || equals == std::string_view::npos) return;
  const std::string_view key = token.substr(0, equals);
  const std::string_view value = token.substr(equals + 1);
  if (key.find("fam") != std::string_view::npos) {
    family_ = value;
  } else if (key == "laddr") {
    address_ = value;
  } else if (key == "lport") {
    port_ = 0;
    std::from_chars(value.data(), value.data() + value.size(), port_);
  } else {
    throw edr::EventException("Unknown token in SOCKADDR record: " + std::string(token));
  }
}

void NetworkEvent::Validate() {
  SyscallEvent::Validate();
  if (FindCall(Syscall()) == nullptr) {
    throw edr::EventException("Invalid syscall for Network event: " + std::to_string(Syscall()));
  }
  if (!IsInternet()) {
    Refuse("Unsupported family in Network event: " + family_);
  } else if (address_.empty()) {
    Refuse("Host address unavailable in Network event");
  } else if (port_ == 0) {
    Refuse("Port unavailable in Network event");
  } else if (IsLoopback()) {
    Refuse("Found Loopback address: " + address_);
  }
}

// The any-address counts as one: it names no other machine.
bool NetworkEvent::IsLoopback() const {
  // A scope may follow an address of IPv6 ("fe80::1%eth0").
  const std::string_view address = std::string_view(address_).substr(0, address_.find('%'));
  if (family_ == "inet6") return address == "::1" || address == "::";
  const std::string_view first = address.substr(0, address.find('.'));
  return first == "127" || first == "0";
}

}  // namespace zagent::audit::internal
