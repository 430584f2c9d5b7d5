#include "src/audit/channels/KernelIOChannel.h"

#include <libaudit.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <string>
#include <string_view>
#include <thread>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "src/audit/channels/AuditRuleBytes.h"

namespace zagent::audit {
namespace {

using common::util::ErrnoText;
using common::util::Log;

constexpr std::chrono::milliseconds kGatherTime{2};

// The text of a record up to a NUL.
std::string_view TextOf(const audit_reply& reply) {
  if (reply.message == nullptr || reply.len <= 0) return {};
  const std::size_t length = std::min<std::size_t>(static_cast<std::size_t>(reply.len), MAX_AUDIT_MESSAGE_LENGTH);
  return {reply.message, strnlen(reply.message, length)};
}

// A privileged sender of user messages can put a line break into its text: it must not begin a record of its own
// making.
void AppendLine(IOChannel::Bytes& data, std::string_view type, std::string_view text) {
  const std::initializer_list<std::string_view> parts = {"type=", type, " msg=", text};
  std::size_t size = 1;
  for (const std::string_view part : parts) size += part.size();
  data.reserve(data.size() + size);
  for (const std::string_view part : parts) data.insert(data.end(), part.begin(), part.end());
  // Searched for rather than replaced byte by byte: there is none in nearly every record.
  unsigned char* const end = data.data() + data.size();
  unsigned char* rest = end - text.size();
  while (auto* found = static_cast<unsigned char*>(std::memchr(rest, '\n', static_cast<std::size_t>(end - rest)))) {
    *found = ' ';
    rest = found + 1;
  }
  data.push_back('\n');
}

}  // namespace

KernelIOChannel::KernelIOChannel(AuditNetlink& netlink) : IOChannel(MAX_AUDIT_MESSAGE_LENGTH, 0), netlink_(netlink) {
  // The socket holds far more than comes in that time.
  let_gather_ = [] { std::this_thread::sleep_for(kGatherTime); };
}

KernelIOChannel::~KernelIOChannel() {
  try {
    KernelIOChannel::Stop();
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch)
  }
}

void KernelIOChannel::Start() {
  ZLOG_INFO("KernelIOChannel: Starting...");
  const Error error = CreateSocket();
  if (error != Error::Success) throw IOChannelException(error);
  try {
    IOChannel::Start();
  } catch (...) {
    CloseSocket();
    throw;
  }
  ZLOG_INFO("KernelIOChannel: Started.");
}

void KernelIOChannel::Stop() {
  std::exception_ptr died_of;
  try {
    IOChannel::Stop();
  } catch (...) {
    died_of = std::current_exception();
  }
  CloseSocket();
  if (died_of) std::rethrow_exception(died_of);
}

IOChannel::Error KernelIOChannel::CreateSocket() {
  if (audit_fd_ != -1) return Error::InvalidState;
  const int fd = netlink_.Open();
  if (fd < 0 || netlink_.SetEnabled(fd, 1) <= 0 || netlink_.SetPid(fd, static_cast<std::uint32_t>(getpid())) < 0) {
    ZLOG_ERROR("KernelIOChannel::CreateSocket: " << ErrnoText(errno));
    if (fd >= 0) netlink_.Close(fd);
    return Error::AccessDenied;
  }
  const Error configured = ConfigureFD(fd);
  if (configured != Error::Success) {
    netlink_.Close(fd);
    return configured;
  }
  audit_fd_ = fd;
  read_fd_ = fd;
  write_fd_ = fd;
  return Error::Success;
}

void KernelIOChannel::CloseSocket() {
  read_fd_ = -1;
  write_fd_ = -1;
  const int fd = audit_fd_.exchange(-1);
  if (fd != -1 && netlink_.Close(fd) != 0) {
    ZLOG_ERROR("KernelIOChannel::CloseSocket: " << ErrnoText(errno));
  }
}

bool KernelIOChannel::Read(Bytes& data) {
  audit_reply reply;  // NOLINT(cppcoreguidelines-pro-type-member-init): nine thousand bytes that the kernel fills
  reply.message = nullptr;
  int length = 0;
  do {
    length = netlink_.GetReply(audit_fd_, reply);
  } while (length < 1 && errno == EINTR);
  if (length < 1) {
    ZLOG_ERROR("KernelIOChannel::Read: Failed to read audit reply.");
    return false;
  }
  ZLOG_TRACE("KernelIOChannel: received " << reply.len << " bytes.");
  const char* type = audit_msg_type_to_name(reply.type);
  if (type == nullptr) return false;
  AppendLine(data, type, TextOf(reply));
  if (Log::IsEventTraceEnabled()) Log::WriteEventTrace("Audit event: " + std::string(data.begin(), data.end()));
  return false;
}

void KernelIOChannel::Send(const Bytes& data) {
  if (audit_fd_ == -1) throw IOChannelException(Error::InvalidState);
  ZLOG_DEBUG("KernelIOChannel: Sending audit rule data. [" << data.size() << " bytes ]");
  if (internal::AddRuleFromBytes(netlink_, audit_fd_, data) <= 0) {
    ZLOG_ERROR("KernelIOChannel::Send: " << ErrnoText(errno));
    throw IOChannelException(Error::Unknown);
  }
  ZLOG_DEBUG("KernelIOChannel: Audit rule sent.");
}

}  // namespace zagent::audit
