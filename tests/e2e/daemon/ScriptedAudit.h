#pragma once

#include <cstdint>
#include <string>

#include "common/src/util/UniqueFd.h"

namespace zagent::e2e {

// The kernel's side of the scripted audit socket: what a test says has happened, as audit records. The objects that
// events name must be on disk as a real call would have left them.
class ScriptedAudit {
 public:
  // Listens at `path`.
  explicit ScriptedAudit(const std::string& path);

  // Waits until the daemon listens to the kernel.
  void AwaitConsumer();

  // mkdir(2) of a folder that is there now, by /usr/bin/mkdir, process 4242, user root logged in as uid 0.
  void MadeFolder(const std::string& path);
  // open(2) with O_CREAT | O_WRONLY of a file that is there now.
  void CreatedFile(const std::string& path);

 private:
  void Emit(int syscall, std::uint64_t second_argument, const std::string& path, const std::string& program);
  void Record(std::uint16_t type, const std::string& text);

  common::util::UniqueFd listener_;
  common::util::UniqueFd consumer_;
  std::uint32_t serial_ = 1000;
};

}  // namespace zagent::e2e
