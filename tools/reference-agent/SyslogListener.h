#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "src/audit/channels/IOChannel.h"

namespace zagent::reference_agent {

// Receives what programs write with syslog(3), when nobody else does: the daemon reports there until its logger exists,
// and a host without a log service would lose it.
class SyslogListener {
 public:
  // One message, without the priority in front and without control bytes. Called on a thread of the listener, or on the
  // destructor's for what is left.
  using Callback = std::function<void(const std::string& line)>;

  // Binds a datagram socket (mode 0600) at the path, unless something alive is there: IsListening tells. Throws
  // std::system_error when the path cannot be bound, audit::IOChannelException when it is too long.
  SyslogListener(const std::string& path, Callback callback);
  SyslogListener(const SyslogListener&) = delete;
  SyslogListener& operator=(const SyslogListener&) = delete;
  ~SyslogListener();

  [[nodiscard]] bool IsListening() const { return channel_ != nullptr; }

  // "<25>Nov 20 09:00:00 ostrel-edr[97]: text\n" without "<25>" and what a terminal would obey.
  static std::string Readable(const std::string& datagram);

 private:
  class Channel;
  std::string path_;
  std::unique_ptr<Channel> channel_;
};

}  // namespace zagent::reference_agent
