#include "src/audit/events/NetworkEvent.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <type_traits>

#include "tests/fakes/AuditRecords.h"

namespace zagent::audit::internal {
namespace {

using fakes::AuditRecords;

class NetworkEventTest : public ::testing::Test {
 protected:
  static NetworkEvent Build(const std::string& address, unsigned syscall = 42,
                            const AuditRecords::Fields& changes = {}) {
    AuditRecords records;
    records.Syscall(syscall, changes).Add(record_type::kSockaddr, {{"saddr", address}});
    return NetworkEvent(records);
  }
  template <typename Call>
  static std::string ErrorOf(Call call) {
    try {
      if constexpr (std::is_void_v<decltype(call())>) {
        call();
      } else {
        const auto& event = call();
        if (event.Refusal() != nullptr) return *event.Refusal();
      }
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "nothing thrown";
  }
  // Why this address makes no event.
  static std::string Refusal(const std::string& address) {
    return ErrorOf([&] { return Build(address); });
  }
  static constexpr const char* kAddress = "{ saddr_fam=inet laddr=10.1.2.3 lport=443 }";
};

TEST_F(NetworkEventTest, TellsWhoConnectsWhereTo) {
  const NetworkEvent event = Build(kAddress, 42, {{"auid", "1000"}, {"euid", "0"}});
  EXPECT_EQ(event.GetNetworkAddress(), "10.1.2.3");
  EXPECT_EQ(event.GetNetworkPort(), 443U);
  EXPECT_EQ(static_cast<int>(event.GetObjectType()), 4);
  EXPECT_EQ(event.GetActorProcessId(), 4711);
  EXPECT_EQ(event.GetActorParentProcessId(), 97);
  EXPECT_EQ(event.GetActorAuid(), 1000U);
  EXPECT_EQ(event.GetImage()->GetPath(), "/bin/ops");
  EXPECT_TRUE(event.IsElevated());
  EXPECT_FALSE(event.HasSecondaryImage());
}

TEST_F(NetworkEventTest, IsNamedByItsCall) {
  const NetworkEvent connect = Build(kAddress, 42);
  EXPECT_EQ(static_cast<int>(connect.GetType()), 12);
  EXPECT_EQ(connect.GetAction(), "Connect");
  const NetworkEvent accept = Build(kAddress, 43);
  EXPECT_EQ(static_cast<int>(accept.GetType()), 1);
  EXPECT_EQ(accept.GetAction(), "Accept");
  const NetworkEvent bind = Build(kAddress, 49);
  EXPECT_EQ(static_cast<int>(bind.GetType()), 13);
  EXPECT_EQ(bind.GetAction(), "Bind");
}

TEST_F(NetworkEventTest, IsMadeOfItsOwnCallsOnly) {
  EXPECT_EQ(ErrorOf([] { return Build(kAddress, 44); }), "Invalid syscall for Network event: 44");
}

TEST_F(NetworkEventTest, TellsOfACallThatFailed) {
  EXPECT_FALSE(Build(kAddress, 42, {{"success", "no"}, {"exit", "-111"}}).IsSuccessful());
}

TEST_F(NetworkEventTest, ReadsAddressesOfIpv6) {
  const NetworkEvent event = Build("{ saddr_fam=inet6 laddr=2001:db8::7 lport=8443 }");
  EXPECT_EQ(event.GetNetworkAddress(), "2001:db8::7");
  EXPECT_EQ(event.GetNetworkPort(), 8443U);
  EXPECT_EQ(Build("saddr_fam=inet6 laddr=fe80::1%eth0 lport=1").GetNetworkAddress(), "fe80::1%eth0");
}

TEST_F(NetworkEventTest, KnowsTheFamilyByAnyNameThatSaysSo) {
  EXPECT_EQ(Build("fam=inet laddr=10.0.0.1 lport=443").GetNetworkPort(), 443U);
  EXPECT_EQ(Build("the-family=inet laddr=10.0.0.1 lport=443").GetNetworkPort(), 443U);
}

TEST_F(NetworkEventTest, PassesOverWordsThatSayNothing) {
  EXPECT_EQ(Build("  {   =x  saddr_fam=inet  word laddr=10.0.0.1   lport=65535 }  ").GetNetworkPort(), 65535U);
}

TEST_F(NetworkEventTest, RefusesAWordThatItDoesNotKnow) {
  EXPECT_EQ(Refusal("saddr_fam=inet laddr=10.0.0.1 flowinfo=7 lport=443"),
            "Unknown token in SOCKADDR record: flowinfo=7");
  EXPECT_EQ(Refusal("path=/srv/socket"), "Unknown token in SOCKADDR record: path=/srv/socket");
}

TEST_F(NetworkEventTest, IsOfTheInternetOnly) {
  const std::string text = "Unsupported family in Network event: ";
  EXPECT_EQ(Refusal("{ saddr_fam=local path=/srv/with blank=x }"), text + "local");
  EXPECT_EQ(Refusal("{ saddr_fam=netlink nlnk-fam=16 nlnk-pid=0 }"), text + "netlink");
  EXPECT_EQ(Refusal("{ saddr_fam=inet66 laddr=::2 lport=1 }"), text + "inet66");
  EXPECT_EQ(Refusal("{ unknown-family }"), text);
  AuditRecords without;
  without.Syscall(42);
  EXPECT_EQ(ErrorOf([&] { return NetworkEvent(without); }), text);
}

TEST_F(NetworkEventTest, NeedsAnAddressAndThenAPort) {
  EXPECT_EQ(Refusal("saddr_fam=inet lport=443"), "Host address unavailable in Network event");
  EXPECT_EQ(Refusal("saddr_fam=inet laddr= lport=443"), "Host address unavailable in Network event");
  EXPECT_EQ(Refusal("saddr_fam=inet"), "Host address unavailable in Network event");
  EXPECT_EQ(Refusal("saddr_fam=inet laddr=10.0.0.1"), "Port unavailable in Network event");
  EXPECT_EQ(Refusal("saddr_fam=inet laddr=10.0.0.1 lport=0"), "Port unavailable in Network event");
  EXPECT_EQ(Refusal("saddr_fam=inet laddr=10.0.0.1 lport=https"), "Port unavailable in Network event");
  EXPECT_EQ(Refusal("saddr_fam=inet laddr=127.0.0.1 lport=0"), "Port unavailable in Network event");
}

TEST_F(NetworkEventTest, StaysSilentAboutWhatStaysOnThisMachine) {
  for (const std::string address : {"127.0.0.1", "127.1.2.3", "0.0.0.0", "0.1.2.3"}) {
    EXPECT_EQ(Refusal("saddr_fam=inet laddr=" + address + " lport=443"), "Found Loopback address: " + address);
  }
  for (const std::string address : {"::1", "::", "::1%lo"}) {
    EXPECT_EQ(Refusal("saddr_fam=inet6 laddr=" + address + " lport=443"), "Found Loopback address: " + address);
  }
}

TEST_F(NetworkEventTest, TakesNoOtherAddressForALoopback) {
  EXPECT_EQ(Build("saddr_fam=inet laddr=12.7.0.0 lport=1").GetNetworkAddress(), "12.7.0.0");
  EXPECT_EQ(Build("saddr_fam=inet laddr=10.127.0.1 lport=1").GetNetworkAddress(), "10.127.0.1");
  EXPECT_EQ(Build("saddr_fam=inet laddr=1270.0.0.1 lport=1").GetNetworkAddress(), "1270.0.0.1");
  EXPECT_EQ(Build("saddr_fam=inet6 laddr=::1:1 lport=1").GetNetworkAddress(), "::1:1");
  EXPECT_EQ(Build("saddr_fam=inet6 laddr=127::1 lport=1").GetNetworkAddress(), "127::1");
}

TEST_F(NetworkEventTest, RefusesWhatASocketDoesNotKnow) {
  const NetworkEvent event = Build(kAddress);
  const std::vector<std::pair<std::string, std::function<void()>>> questions = {
      {"GetActorProcessArguments is not implemented", [&] { static_cast<void>(event.GetActorProcessArguments()); }},
      {"GetSecondaryImage not implemented", [&] { static_cast<void>(event.GetSecondaryImage()); }},
      {"GetCwd is not implemented", [&] { static_cast<void>(event.GetCwd()); }},
      {"GetFile not implemented", [&] { static_cast<void>(event.GetFile()); }},
  };
  for (const auto& [text, ask] : questions) EXPECT_EQ(ErrorOf(ask), text);
}

TEST_F(NetworkEventTest, Clones) {
  const std::unique_ptr<edr::Event> copy = Build(kAddress, 49).Clone();
  EXPECT_EQ(copy->GetAction(), "Bind");
  EXPECT_EQ(copy->GetNetworkAddress(), "10.1.2.3");
  EXPECT_EQ(copy->GetNetworkPort(), 443U);
}

}  // namespace
}  // namespace zagent::audit::internal
