#include "tests/e2e/daemon/ScriptedAudit.h"

#include <fcntl.h>
#include <libaudit.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <stdexcept>

#include "common/src/util/DeviceText.h"

namespace zagent::e2e {
namespace {

void Require(bool holds, const std::string& what) {
  if (!holds) throw std::runtime_error("ScriptedAudit: " + what + ": " + std::strerror(errno));
}

std::string Stamp(std::uint32_t serial) {
  return "audit(" + std::to_string(std::time(nullptr)) + ".500:" + std::to_string(serial) + "): ";
}

std::string PathRecord(int item, const std::string& path, const char* type) {
  struct stat info {};
  Require(lstat(path.c_str(), &info) == 0, "lstat " + path);
  std::array<char, 16> mode{};
  std::snprintf(mode.data(), mode.size(), "0%o", info.st_mode);
  return "item=" + std::to_string(item) + " name=\"" + path + "\" inode=" + std::to_string(info.st_ino) +
         " dev=" + common::util::DeviceText(info.st_dev) + " mode=" + mode.data() +
         " ouid=" + std::to_string(info.st_uid) + " ogid=" + std::to_string(info.st_gid) +
         " rdev=00:00 nametype=" + type + " cap_fp=0 cap_fi=0 cap_fe=0 cap_fver=0 cap_frootid=0";
}

}  // namespace

ScriptedAudit::ScriptedAudit(const std::string& path, Source source)
    : source_(source),
      listener_(socket(AF_UNIX, (source == Source::Kernel ? SOCK_SEQPACKET : SOCK_STREAM) | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  Require(bind(listener_.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "bind " + path);
  Require(listen(listener_.Get(), 1) == 0, "listen");
}

void ScriptedAudit::AwaitConsumer() {
  pollfd waiting{listener_.Get(), POLLIN, 0};
  if (poll(&waiting, 1, 30'000) != 1)
    throw std::runtime_error("ScriptedAudit: the daemon does not listen to the kernel");
  consumer_.Reset(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  Require(static_cast<bool>(consumer_), "accept");
}

bool ScriptedAudit::IsWanted() const {
  pollfd waiting{listener_.Get(), POLLIN, 0};
  return poll(&waiting, 1, 0) == 1;
}

void ScriptedAudit::MadeFolder(const std::string& path) {
  Emit(83, 0755, path, "mkdir");
}

void ScriptedAudit::CreatedFile(const std::string& path) {
  Emit(2, O_CREAT | O_WRONLY, path, "touch");
}

void ScriptedAudit::CreatedFileOften(const std::string& path, int count) {
  const std::string paths[] = {PathRecord(0, std::filesystem::path(path).parent_path(), "PARENT"),
                               PathRecord(1, path, "CREATE")};
  std::string lines;
  for (int i = 0; i < count; ++i) {
    ++serial_;
    const std::string stamp = Stamp(serial_);
    const std::string process = std::to_string(100'000 + i % 500);
    lines += "type=SYSCALL msg=" + stamp +
             "arch=c000003e syscall=2 success=yes exit=0 a0=7ffd a1=41 a2=0 a3=0 items=2 ppid=1 pid=" + process +
             " auid=0 uid=0 gid=0 euid=0 suid=0 fsuid=0 egid=0 sgid=0 fsgid=0 tty=(none) ses=1 comm=\"touch\" "
             "exe=\"/usr/bin/touch\" subj=unconfined key=\"watched-folder\"\n";
    lines += "type=CWD msg=" + stamp + "cwd=\"/\"\n";
    for (const std::string& record : paths) lines += "type=PATH msg=" + stamp + record + "\n";
    lines += "type=PROCTITLE msg=" + stamp + "proctitle=\"touch\"\n";  // which ends an event for auparse
    if (lines.size() < 60'000 && i + 1 < count) continue;
    Send(lines);
    lines.clear();
  }
}

void ScriptedAudit::Emit(int syscall, std::uint64_t second_argument, const std::string& path,
                         const std::string& program) {
  ++serial_;
  std::array<char, 32> argument{};
  std::snprintf(argument.data(), argument.size(), "%lx", second_argument);
  Record(1300, "arch=c000003e syscall=" + std::to_string(syscall) +
                   " success=yes exit=0 a0=7ffd a1=" + argument.data() +
                   " a2=0 a3=0 items=2 ppid=1 pid=4242 auid=0 uid=0 gid=0 euid=0 suid=0 fsuid=0 egid=0 sgid=0 fsgid=0"
                   " tty=(none) ses=1 comm=\"" +
                   program + "\" exe=\"/usr/bin/" + program + "\" subj=unconfined key=\"watched-folder\"");
  Record(1307, "cwd=\"/\"");
  Record(1302, PathRecord(0, std::filesystem::path(path).parent_path(), "PARENT"));
  Record(1302, PathRecord(1, path, "CREATE"));
  Record(1327, "proctitle=\"" + program + "\"");
}

void ScriptedAudit::Record(std::uint16_t type, const std::string& text) {
  const std::string body = Stamp(serial_) + text;
  const std::string packet = source_ == Source::Kernel
                                 ? std::string(reinterpret_cast<const char*>(&type), sizeof type) + body
                                 : std::string("type=") + audit_msg_type_to_name(type) + " msg=" + body + "\n";
  Send(packet);
}

void ScriptedAudit::Send(const std::string& bytes) {
  Require(send(consumer_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size()),
          "send");
}

}  // namespace zagent::e2e
