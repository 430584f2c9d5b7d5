#pragma once

#include <string>

#include "src/audit/channels/IOChannel.h"
#include "tests/fakes/Mailbox.h"

namespace zagent::fakes {

inline audit::IOChannel::Bytes ToBytes(const std::string& text) {
  return {text.begin(), text.end()};
}

// What a channel's callbacks were called with.
struct ChannelLog {
  Mailbox<std::string> messages;
  Mailbox<audit::IOChannel::Error> errors;
  Mailbox<std::string> ends;  // why a loop has ended by itself

  void ListenTo(audit::IOChannel& channel) {
    channel.SetReadCallback([this](audit::IOChannel::Bytes&& data) { messages.Put({data.begin(), data.end()}); });
    channel.SetErrorCallback([this](audit::IOChannel::Error error) { errors.Put(error); });
    channel.SetEndedCallback([this](const std::string& cause) { ends.Put(cause); });
  }
};

}  // namespace zagent::fakes
