#pragma once

#include <sys/wait.h>

#include <csignal>
#include <memory>
#include <string>

#include "tests/e2e/upload/ProxyProcess.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LineProcess.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::e2e {

// Debian's nats-server with JetStream on a port of its own of 127.0.0.1, which it keeps over a restart like its store.
class NatsServer {
 public:
  // `extra`: further lines of its configuration.
  explicit NatsServer(std::string extra = "") : extra_(std::move(extra)), port_(FreePort()) {}

  void Start() {
    const std::string config = "listen: 127.0.0.1:" + std::to_string(port_) + "\njetstream { store_dir: \"" +
                               (folder_ / "store") + "\" }\nlogfile: \"" + (folder_ / "log") + "\"\n" + extra_;
    process_ = std::make_unique<fakes::LineProcess>(
        std::vector<std::string>{"/usr/sbin/nats-server", "-c", folder_.Write("nats.conf", config)});
    if (!fakes::Eventually([this] { return Answers(port_); })) {
      throw std::runtime_error("nats-server does not answer: " + process_->Said() + folder_.Read("log"));
    }
  }
  void Kill() { process_.reset(); }
  // It neither takes nor answers anything, and nobody is told so.
  void Halt() const {
    kill(process_->Pid(), SIGSTOP);
    waitpid(process_->Pid(), nullptr, WUNTRACED);  // until each of its threads has halted
  }
  void GoOn() const { kill(process_->Pid(), SIGCONT); }

  [[nodiscard]] std::string Address() const { return "127.0.0.1:" + std::to_string(port_); }
  [[nodiscard]] std::string Url() const { return "nats://" + Address(); }

 private:
  const std::string extra_;
  fakes::TempFolder folder_;
  const std::uint16_t port_;
  std::unique_ptr<fakes::LineProcess> process_;
};

}  // namespace zagent::e2e
