#pragma once

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "tests/fakes/TempFolder.h"

namespace zagent::fakes {

// A procfs that knows of each process when it was started and which program it runs, and nothing else.
class FakeProcesses {
 public:
  [[nodiscard]] const std::string& Root() const { return root_.Path(); }

  // Makes a process, or replaces the one of this pid. Without a program it has ended and waits for its parent.
  void Start(std::int32_t pid, std::int64_t start_ticks, const std::string& program = "") const {
    End(pid);
    const std::string folder = std::to_string(pid);
    std::filesystem::create_directory(root_ / folder);
    root_.Write(folder + "/stat", folder + " (a) S 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 " +
                                      std::to_string(start_ticks) + " 20\n");
    if (!program.empty()) std::filesystem::create_symlink(program, root_ / (folder + "/exe"));
  }
  // When the machine was started, in seconds since the epoch. Without it no start is compared with the time of an
  // event.
  void Boot(std::int64_t seconds) const { root_.Write("stat", "btime " + std::to_string(seconds) + "\n"); }
  void End(std::int32_t pid) const { std::filesystem::remove_all(root_ / std::to_string(pid)); }

 private:
  const TempFolder root_;
};

}  // namespace zagent::fakes
