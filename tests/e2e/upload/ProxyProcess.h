#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <filesystem>
#include <memory>
#include <string>

#include "common/src/util/UniqueFd.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LineProcess.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::e2e {

// A port of 127.0.0.1 that nobody has at this moment.
inline std::uint16_t FreePort() {
  const common::util::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  if (bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    throw std::runtime_error("no free port");
  }
  return ntohs(address.sin_port);
}

inline bool Answers(std::uint16_t port) {
  const common::util::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
}

// One of Debian's proxies on 127.0.0.1, with a configuration of the test's own.
class ProxyProcess {
 public:
  struct Options {
    std::string user;  // empty: anybody may use it
    std::string password;
    // Of an HTTPS proxy (squid): PEM files; empty for a plain one.
    std::string certificate;
    std::string key;
  };

  static std::unique_ptr<ProxyProcess> Tinyproxy(const Options& options = {}) {
    auto proxy = std::unique_ptr<ProxyProcess>(new ProxyProcess);
    std::string config = "Port " + proxy->Port() + "\nListen 127.0.0.1\nTimeout 30\nMaxClients 20\n";
    if (!options.user.empty()) config += "BasicAuth " + options.user + " " + options.password + "\n";
    const std::string file = proxy->folder_.Write("tinyproxy.conf", config);
    proxy->Start({"tinyproxy", "-d", "-c", file});
    return proxy;
  }

  static std::unique_ptr<ProxyProcess> Squid(const Options& options = {}) {
    auto proxy = std::unique_ptr<ProxyProcess>(new ProxyProcess);
    const auto& folder = proxy->folder_;
    // Squid drops its rights and must still reach its files.
    std::filesystem::permissions(folder.Path(), std::filesystem::perms::all);
    std::string config = options.certificate.empty()
                             ? "http_port 127.0.0.1:" + proxy->Port() + "\n"
                             : "https_port 127.0.0.1:" + proxy->Port() + " tls-cert=" + options.certificate +
                                   " tls-key=" + options.key + "\n";
    if (!options.user.empty()) {
      fakes::LineProcess crypt({"openssl", "passwd", "-apr1", options.password});
      const std::string users = folder.Write("users", options.user + ":" + crypt.AwaitLine("") + "\n");
      crypt.AwaitExit();
      config += "auth_param basic program /usr/lib/squid/basic_ncsa_auth " + users +
                "\nauth_param basic children 1\nacl known proxy_auth REQUIRED\nhttp_access deny !known\n";
    }
    config += "http_access allow all\ncache deny all\naccess_log none\ncache_log stdio:" + (folder / "cache.log") +
              "\npid_filename none\ncoredump_dir " + folder.Path() +
              "\nshutdown_lifetime 0 seconds\nvisible_hostname proxy.test\nunlinkd_program /bin/true\n"
              "pinger_enable off\nlogfile_rotate 0\nmax_filedescriptors 256\n";
    proxy->Start({"squid", "-N", "-f", folder.Write("squid.conf", config)});
    return proxy;
  }

  // "127.0.0.1:<port>"
  [[nodiscard]] std::string Address() const { return "127.0.0.1:" + Port(); }

 private:
  ProxyProcess() : port_(FreePort()) {}
  [[nodiscard]] std::string Port() const { return std::to_string(port_); }
  void Start(std::vector<std::string> arguments) {
    process_ = std::make_unique<fakes::LineProcess>(std::move(arguments));
    if (!fakes::Eventually([this] { return Answers(port_); })) {
      throw std::runtime_error("the proxy does not answer: " + process_->Said() + folder_.Read("cache.log"));
    }
  }

  fakes::TempFolder folder_;
  std::uint16_t port_;
  std::unique_ptr<fakes::LineProcess> process_;
};

}  // namespace zagent::e2e
