// Behaves towards its agent as the daemon does: detaches, connects, writes down each message, ends on "exit", and gives
// up when the agent stays away (after five seconds, so that a failed test leaves nothing behind for long). What it does
// in detail stands in its environment:
//   FAKE_SOCKET  the control socket          FAKE_SYSLOG  a datagram socket for one line, when set
//   FAKE_NOTES   a file for the messages     FAKE_CODE    its exit code      FAKE_LAUNCH_CODE  fail before detaching
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <future>
#include <mutex>
#include <string>

#include "src/audit/channels/UnixClientStreamSockIOChannel.h"
#include "src/audit/channels/UnixSocket.h"

namespace {

std::string Setting(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): before any thread
  return value != nullptr ? value : "";
}

void WriteSyslog(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
  const zagent::audit::internal::UnixAddress address(path);
  const std::string line = "<25>fake-daemon[1]: Waiting for \x1b[31mconfiguration\n";
  sendto(fd, line.data(), line.size(), 0, address.Get(), zagent::audit::internal::UnixAddress::Size());
  close(fd);
}

}  // namespace

int main() {
  using zagent::audit::IOChannel;
  const std::string socket_path = Setting("FAKE_SOCKET");
  const std::string notes = Setting("FAKE_NOTES");
  const std::string syslog = Setting("FAKE_SYSLOG");
  const int code = std::atoi(Setting("FAKE_CODE").c_str());
  const int launch_code = std::atoi(Setting("FAKE_LAUNCH_CODE").c_str());
  if (launch_code != 0) return launch_code;
  if (daemon(0, 0) != 0) return 3;
  if (!syslog.empty()) WriteSyslog(syslog);

  std::promise<int> ended;
  std::once_flag once;
  const auto end = [&](int with) { std::call_once(once, [&] { ended.set_value(with); }); };
  try {
    zagent::audit::UnixClientStreamSockIOChannel channel(socket_path, 5);
    channel.SetReadCallback([&](IOChannel::Bytes&& bytes) {
      const std::string message(bytes.begin(), bytes.end());
      std::ofstream(notes, std::ios::app) << message << std::endl;
      if (message.find("\"exit\"") != std::string::npos) end(code);
    });
    channel.SetErrorCallback([&](IOChannel::Error) { end(90); });
    channel.Start();
    return ended.get_future().get();
  } catch (const std::exception&) {
    return 4;
  }
}
