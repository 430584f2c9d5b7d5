#pragma once

#include <functional>
#include <initializer_list>

#include "common/src/util/UniqueFd.h"
#include "src/audit/channels/StdIOChannel.h"

namespace zagent::reference_agent {

// Signals as calls on a thread of their own. Built before any other thread: they are blocked in the calling thread and
// in those that it makes from then on.
class SignalChannel {
 public:
  using Callback = std::function<void(int signal)>;

  // Throws std::system_error.
  SignalChannel(std::initializer_list<int> signals, Callback callback);

 private:
  common::util::UniqueFd descriptor_;
  audit::StdIOChannel channel_;
};

}  // namespace zagent::reference_agent
