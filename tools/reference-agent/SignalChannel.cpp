#include "tools/reference-agent/SignalChannel.h"

#include <signal.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

namespace zagent::reference_agent {
namespace {

int OpenSignals(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) sigaddset(&set, signal);
  const int error = pthread_sigmask(SIG_BLOCK, &set, nullptr);
  if (error != 0) throw std::system_error(error, std::generic_category(), "pthread_sigmask");
  const int fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "signalfd");
  return fd;
}

}  // namespace

SignalChannel::SignalChannel(std::initializer_list<int> signals, Callback callback)
    : descriptor_(OpenSignals(signals)), channel_(descriptor_.Get(), -1, sizeof(signalfd_siginfo)) {
  channel_.SetReadCallback([callback = std::move(callback)](audit::IOChannel::Bytes&& bytes) {
    for (std::size_t at = 0; at + sizeof(signalfd_siginfo) <= bytes.size(); at += sizeof(signalfd_siginfo)) {
      signalfd_siginfo info{};
      std::memcpy(&info, bytes.data() + at, sizeof(info));
      callback(static_cast<int>(info.ssi_signo));
    }
  });
  channel_.Start();
}

}  // namespace zagent::reference_agent
