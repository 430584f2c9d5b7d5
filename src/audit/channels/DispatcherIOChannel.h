#pragma once

#include <atomic>
#include <string>

#include "src/audit/channels/AuditNetlink.h"
#include "src/audit/channels/UnixClientStreamSockIOChannel.h"

namespace zagent::audit {

// Reads what an audit daemon's dispatcher forwards on a UNIX socket: lines of the audit log's format, in pieces of any
// length. The audit daemon stays the kernel's consumer; a netlink socket is opened for sending rules only. When the
// dispatcher goes away the channel tries to come back without end, once a second.
class DispatcherIOChannel final : public UnixClientStreamSockIOChannel {
 public:
  DispatcherIOChannel(AuditNetlink& netlink, std::string path,
                      common::util::Clock& clock = common::util::Clock::Real());
  DispatcherIOChannel(const DispatcherIOChannel&) = delete;
  DispatcherIOChannel& operator=(const DispatcherIOChannel&) = delete;
  ~DispatcherIOChannel() override;

  // As KernelIOChannel::Send.
  void Send(const Bytes& data) override;
  // Throws IOChannelException: InvalidData when there is no such path, AccessDenied when the kernel refuses, and so on.
  void Start() override;
  void Stop() override;

 protected:
  void OnRead(Bytes&& data) override;

 private:
  Error CreateSocket();
  void CloseSocket();

  AuditNetlink& netlink_;
  std::atomic<int> audit_fd_{-1};
};

}  // namespace zagent::audit
