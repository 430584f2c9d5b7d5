#include "common/src/tasks/SignalHelper.h"

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <system_error>

namespace zagent::common {
namespace {

void ChangeMask(int how, const std::vector<int>& signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) {
    if (sigaddset(&set, signal) != 0) throw std::system_error(errno, std::generic_category(), "sigaddset");
  }
  const int error = pthread_sigmask(how, &set, nullptr);
  if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_sigmask");
}

}  // namespace

SignalHelper& SignalHelper::Instance() {
  static SignalHelper helper;
  return helper;
}

void SignalHelper::Register(int signal, Handler handler) {
  if (handler == nullptr) throw std::runtime_error("null signal handler supplied");
  struct sigaction action {};
  sigemptyset(&action.sa_mask);
  action.sa_handler = handler;
  if (sigaction(signal, &action, nullptr) != 0) {
    throw std::system_error(errno, std::generic_category(), "sigaction");
  }
}

void SignalHelper::Block(const std::vector<int>& signals) {
  ChangeMask(SIG_BLOCK, signals);
}

void SignalHelper::Unblock(const std::vector<int>& signals) {
  ChangeMask(SIG_UNBLOCK, signals);
}

}  // namespace zagent::common
