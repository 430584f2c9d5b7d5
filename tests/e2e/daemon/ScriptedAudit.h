#pragma once

#include <cstdint>
#include <string>

#include "common/src/util/UniqueFd.h"

namespace zagent::e2e {

// The far side of an audit socket, the scripted kernel's or an audit daemon's dispatcher: what a test says has
// happened, as audit records. The objects that events name must be on disk as a real call would have left them.
class ScriptedAudit {
 public:
  enum class Source { Kernel, Dispatcher };

  // Listens at `path`.
  explicit ScriptedAudit(const std::string& path, Source source = Source::Kernel);

  // Waits until the daemon listens here.
  void AwaitConsumer();
  // True when the daemon has connected since the last AwaitConsumer.
  [[nodiscard]] bool IsWanted() const;
  // Ends the daemon's connection: an audit daemon that restarts, or a kernel's socket that dies.
  void DropConsumer() { consumer_.Reset(); }

  // mkdir(2) of a folder that is there now, by /usr/bin/mkdir, process 4242, user root logged in as uid 0.
  void MadeFolder(const std::string& path);
  // open(2) with O_CREAT | O_WRONLY of a file that is there now.
  void CreatedFile(const std::string& path);
  // The same file, `count` times, by 500 processes in turn. A dispatcher only; written as fast as the daemon reads.
  void CreatedFileOften(const std::string& path, int count);

 private:
  void Send(const std::string& bytes);
  void Emit(int syscall, std::uint64_t second_argument, const std::string& path, const std::string& program);
  void Record(std::uint16_t type, const std::string& text);

  Source source_;
  common::util::UniqueFd listener_;
  common::util::UniqueFd consumer_;
  std::uint32_t serial_ = 1000;
};

}  // namespace zagent::e2e
