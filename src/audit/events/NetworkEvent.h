#pragma once

#include <string>
#include <string_view>

#include "src/audit/events/SyscallEvent.h"

namespace zagent::audit::internal {

// A socket was connected to or bound at an address of IPv4 or IPv6 (connect, accept, bind). What stays on this machine
// (loopback, other families) makes no event.
class NetworkEvent final : public SyscallEvent {
 public:
  // The event that the source stands at. Throws when the event cannot be built.
  explicit NetworkEvent(RecordSource& source);
  NetworkEvent& operator=(const NetworkEvent&) = delete;
  ~NetworkEvent() override = default;

  [[nodiscard]] std::unique_ptr<edr::Event> Clone() const override;
  [[nodiscard]] edr::EventType GetType() const override;
  [[nodiscard]] std::string GetAction() const override;
  [[nodiscard]] edr::ObjectType GetObjectType() const override { return edr::ObjectType::Network; }
  // The peer's address of a connect, the own one of a bind.
  [[nodiscard]] const std::string& GetNetworkAddress() const override { return address_; }
  [[nodiscard]] std::uint32_t GetNetworkPort() const override { return port_; }
  void ParseRecord(int type, const edr::RecordFields& fields) override;
  void Validate() override;

 private:
  NetworkEvent(const NetworkEvent&) = default;

  void ParseAddress(std::string_view text);
  void ParseToken(std::string_view token);
  [[nodiscard]] bool IsInternet() const { return family_ == "inet" || family_ == "inet6"; }
  [[nodiscard]] bool IsLoopback() const;

  std::string family_;
  std::string address_;
  std::uint32_t port_ = 0;
};

}  // namespace zagent::audit::internal
