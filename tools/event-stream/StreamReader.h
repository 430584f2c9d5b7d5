#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tools/event-stream/StreamConnection.h"

namespace zagent::tools {

// Reads a stream under a name that the engine remembers: several readers of one name share the messages, and each
// message comes until it was acknowledged. For one thread.
class StreamReader {
 public:
  struct Message {
    NatsPtr<natsMsg> owned;
    std::string subject;
    std::string text;

    // Empty for none.
    [[nodiscard]] std::string Header(const char* name) const;
  };
  struct Options {
    std::string name;               // of the reader
    bool only_headers = false;      // leave the texts out
    std::string subject = "edr.>";  // read these only
    // What was read and is neither acknowledged nor given back comes again after so long. The first of a name decides.
    std::chrono::milliseconds ack_wait = std::chrono::seconds(30);
  };

  // `connection`: lives as long as this.
  StreamReader(const StreamConnection& connection, Options options);

  // What there is, oldest first and at most `count`, as soon as there is something; empty when nothing came in this
  // time, with the session lost or away, too. Throws std::runtime_error for what the engine refuses.
  std::vector<Message> Read(int count, std::chrono::milliseconds patience);
  // Of messages of the last Read. False when the session is lost: they will come again.
  bool Acknowledge(const std::vector<Message>& messages);
  // Of messages of the last Read: they come again at once, to this reader or another of the name.
  void GiveBack(const std::vector<Message>& messages);
  // Lets the engine forget the name.
  void Forget();

 private:
  // False when nothing can be read now.
  bool Subscribe(std::chrono::milliseconds patience);

  const StreamConnection& connection_;
  const Options options_;
  std::shared_ptr<const StreamSession> session_;
  NatsPtr<natsSubscription> subscription_;  // messages of the last Read refer to it
  bool is_stale_ = false;                   // subscribe anew
};

}  // namespace zagent::tools
