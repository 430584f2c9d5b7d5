// Takes the input as the address of a connect: once as the bytes that the kernel recorded, through auparse, and once as
// the text that auparse makes of them. Of the bytes it is known what must come of them; the last one also chooses
// whether coverage is extended and folders are known, and must not make a difference by that.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <string>

#include "common/src/util/Digest.h"
#include "fuzz/RecordedTree.h"
#include "fuzz/SilentLog.h"
#include "src/audit/events/NetworkEvent.h"
#include "src/audit/parser/RecordFeed.h"
#include "tests/fakes/AuditRecords.h"

namespace {

using zagent::audit::internal::Events;
using zagent::audit::internal::NetworkEvent;
using zagent::audit::internal::RecordFeed;
using zagent::fakes::AuditRecords;
namespace record_type = zagent::audit::internal::record_type;

struct Peer {
  std::string address;
  unsigned port = 0;
};

template <typename Address>
std::optional<Address> ReadAddress(const std::uint8_t* data, std::size_t size) {
  Address address{};
  if (size < sizeof address) return std::nullopt;
  std::memcpy(&address, data, sizeof address);
  return address;
}

std::string TextOf(int family, const void* address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  inet_ntop(family, address, text.data(), text.size());
  return text.data();
}

// Nothing for what makes no event: another family, too few bytes, no port, an address that stays on this machine.
std::optional<Peer> PeerIn(const std::uint8_t* data, std::size_t size) {
  const auto family = ReadAddress<sa_family_t>(data, size);
  Peer peer;
  if (family == AF_INET) {
    const auto v4 = ReadAddress<sockaddr_in>(data, size);
    if (!v4) return std::nullopt;
    const std::uint32_t first = ntohl(v4->sin_addr.s_addr) >> 24;
    if (first == 0 || first == 127) return std::nullopt;
    peer = {TextOf(AF_INET, &v4->sin_addr), ntohs(v4->sin_port)};
  } else if (family == AF_INET6) {
    const auto v6 = ReadAddress<sockaddr_in6>(data, size);
    if (!v6 || IN6_IS_ADDR_LOOPBACK(&v6->sin6_addr) || IN6_IS_ADDR_UNSPECIFIED(&v6->sin6_addr)) return std::nullopt;
    peer = {TextOf(AF_INET6, &v6->sin6_addr), ntohs(v6->sin6_port)};
  }
  if (peer.port == 0) return std::nullopt;
  return peer;
}

void ConnectByBytes(const std::uint8_t* data, std::size_t size) {
  const std::uint8_t choice = size != 0 ? data[size - 1] : 0;
  const auto factory = zagent::audit::internal::MakeEventFactory(zagent::fuzz::RecordedTree::Get().ContextOf(choice));
  zagent::audit::IntakeCounters counters;
  RecordFeed feed(factory, counters);
  const std::string mark = " msg=audit(1700000000.123:900): ";
  const std::string text = "type=SYSCALL" + mark +
                           "arch=c000003e syscall=42 success=yes exit=0 a0=3 a1=7ffd a2=10 a3=0 items=0 ppid=1 "
                           "pid=4711 auid=1000 uid=0 euid=0 comm=\"nc\" exe=\"/bin/nc\" key=\"net\"\ntype=SOCKADDR" +
                           mark + "saddr=" + zagent::common::util::ToHex({reinterpret_cast<const char*>(data), size}) +
                           "\n";
  feed.Feed(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
  feed.Flush();
  const Events events = feed.TakeEvents();
  const std::optional<Peer> expected = PeerIn(data, size);
  if (events.size() != (expected ? 1U : 0U)) std::abort();
  if (!expected) return;
  const std::string address = events[0]->GetNetworkAddress();
  // A link's address has its interface behind it.
  if (address.substr(0, address.find('%')) != expected->address) std::abort();
  if (events[0]->GetNetworkPort() != expected->port) std::abort();
}

void ConnectByText(const std::string& text) {
  AuditRecords records;
  records.Syscall(42).Add(record_type::kSockaddr, {{"saddr", text}});
  try {
    const NetworkEvent event(records);
    if (event.Refusal() != nullptr) return;
    if (event.GetNetworkAddress().empty() || event.GetNetworkPort() == 0) std::abort();
  } catch (const std::exception&) {
    // No event, and it says why.
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zagent::fuzz::SilenceLog();
  ConnectByBytes(data, size);
  ConnectByText({reinterpret_cast<const char*>(data), size});
  return 0;
}
