#include "tools/reference-agent/SyslogListener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "common/src/util/UniqueFd.h"
#include "src/audit/channels/UnixSocket.h"

namespace zagent::reference_agent {
namespace {

using audit::internal::UnixAddress;
using common::util::UniqueFd;

constexpr std::size_t kMaxDatagram = 65'536;
constexpr std::size_t kMaxPath = 107;

[[noreturn]] void ThrowErrno(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// True when somebody receives at the path, or when it is no socket at all.
bool IsTaken(const std::string& path, const UnixAddress& address) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) return false;
  if (!S_ISSOCK(status.st_mode)) return true;
  const UniqueFd probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return connect(probe.Get(), address.Get(), UnixAddress::Size()) == 0 || errno != ECONNREFUSED;
}

}  // namespace

// One datagram a read: joined in a burst they would lose their bounds.
class SyslogListener::Channel final : public audit::IOChannel {
 public:
  explicit Channel(UniqueFd socket) : IOChannel(kMaxDatagram, 0), socket_(std::move(socket)) {
    if (ConfigureFD(socket_.Get()) != Error::Success) throw audit::IOChannelException(Error::Unknown);
    read_fd_ = socket_.Get();
  }
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;
  ~Channel() override {
    try {
      Stop();
      Bytes left;
      while (Read(left), !left.empty()) {
        OnRead(std::move(left));
        left.clear();
      }
    } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
    }
  }

 protected:
  bool Read(Bytes& data) override {
    std::array<unsigned char, kMaxDatagram> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): recv fills it
    const ssize_t length = recv(socket_.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (length > 0) data.assign(buffer.begin(), buffer.begin() + length);
    return false;
  }

 private:
  UniqueFd socket_;
};

SyslogListener::SyslogListener(const std::string& path, Callback callback) : path_(path) {
  if (path.empty() || path.size() > kMaxPath) throw audit::IOChannelException(audit::IOChannel::Error::InvalidData);
  const UnixAddress address(path);
  if (IsTaken(path, address)) return;
  unlink(path.c_str());  // of a listener that died
  UniqueFd receiver(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!receiver || fchmod(receiver.Get(), 0600) != 0 || bind(receiver.Get(), address.Get(), UnixAddress::Size()) != 0) {
    ThrowErrno(path);
  }
  channel_ = std::make_unique<Channel>(std::move(receiver));
  channel_->SetReadCallback([callback = std::move(callback)](audit::IOChannel::Bytes&& bytes) {
    callback(Readable({bytes.begin(), bytes.end()}));
  });
  channel_->Start();
}

SyslogListener::~SyslogListener() {
  if (!channel_) return;
  unlink(path_.c_str());
  channel_.reset();
}

std::string SyslogListener::Readable(const std::string& datagram) {
  std::size_t begin = 0;
  if (!datagram.empty() && datagram.front() == '<') {
    const std::size_t end = datagram.find('>');
    if (end != std::string::npos && end <= 4) begin = end + 1;
  }
  std::string line;
  for (std::size_t i = begin; i < datagram.size(); ++i) {
    const auto byte = static_cast<unsigned char>(datagram[i]);
    const auto next = i + 1 < datagram.size() ? static_cast<unsigned char>(datagram[i + 1]) : 0U;
    if (byte == 0xC2 && next >= 0x80 && next <= 0x9F) {
      ++i;  // a control character of the second set, in UTF-8
    } else if (byte >= 0x20 && byte != 0x7F) {
      line += datagram[i];
    }
  }
  return line;
}

}  // namespace zagent::reference_agent
