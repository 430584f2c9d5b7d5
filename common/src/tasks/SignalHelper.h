#pragma once

#include <vector>

namespace zagent::common {

// Installs signal handlers and masks signals. Holds no state; any thread may call it.
class SignalHelper {
 public:
  using Handler = void (*)(int);

  SignalHelper(const SignalHelper&) = delete;
  SignalHelper& operator=(const SignalHelper&) = delete;

  static SignalHelper& Instance();

  // For the whole process, with an empty mask and no flags: a system call that waits returns with EINTR.
  // Throws std::runtime_error "null signal handler supplied", and std::system_error for a signal that takes no handler.
  void Register(int signal, Handler handler);

  // For the calling thread, and for the threads that it makes later. Throw std::system_error.
  void Block(const std::vector<int>& signals);
  void Unblock(const std::vector<int>& signals);

 private:
  SignalHelper() = default;
  ~SignalHelper() = default;
};

}  // namespace zagent::common
