#pragma once

#include <functional>
#include <memory>
#include <string>

#include "src/audit/channels/UnixServerStreamSockIOChannel.h"

namespace zagent::reference_agent {

// What an instance of the program answers to a command line: one line of text.
struct Answer {
  bool ok = false;
  std::string text;
};

// Where a running agent takes command lines from a second instance, on a stream socket of mode 0600. One asker at a
// time: a line goes in, a line comes out.
class AdminSocket {
 public:
  // Called on a thread of the socket with the line; whoever handles it calls Reply once.
  using LineCallback = std::function<void(const std::string& line)>;

  // Throws audit::IOChannelException, std::runtime_error when another agent answers at the path.
  AdminSocket(const std::string& path, LineCallback on_line);

  // An asker that has gone meanwhile is nobody's failure.
  void Reply(const Answer& answer);

 private:
  std::unique_ptr<audit::UnixServerStreamSockIOChannel> channel_;
};

// Asks the agent at the path. Never throws: without an agent, or without an answer in half a minute, the answer says
// so.
Answer AskAgent(const std::string& path, const std::string& line);

}  // namespace zagent::reference_agent
