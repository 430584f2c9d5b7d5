#pragma once

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/fakes/TempFolder.h"

namespace zagent::fakes {

// A procfs of this process alone, whose use of the machine a test sets.
class FakeProcess {
 public:
  FakeProcess() : pid_(std::to_string(getpid())) {
    std::filesystem::create_directory(proc_ / pid_);
    proc_.Write("meminfo", "MemTotal:       1000000 kB\nMemFree:         1234567 kB\n");
    SetCpuTicks(0);
    SetResidentKb({});
  }

  [[nodiscard]] const std::string& ProcRoot() const { return proc_.Path(); }

  // Ticks of user mode so far.
  void SetCpuTicks(std::uint64_t ticks) const { SetStat(std::to_string(ticks) + " 0 0 0 20 0 1 0 100\n"); }
  // The line from its fourteenth field on.
  void SetStat(const std::string& times) const {
    proc_.Write(pid_ + "/stat", pid_ + " (a (b) 1 2) S 1 2 3 4 5 6 7 8 9 10 " + times);
  }
  void BreakStat() const { proc_.Write(pid_ + "/stat", "nonsense"); }

  // One mapping each.
  void SetResidentKb(const std::vector<std::uint64_t>& mappings) const {
    std::string text;
    for (const std::uint64_t kb : mappings) {
      text += "7f0000000000-7f0000001000 r--p 00000000 fe:01 1 /lib/x\nSize: 4 kB\nRss: " + std::to_string(kb) +
              " kB\nPss: 77 kB\n";
    }
    proc_.Write(pid_ + "/smaps", text);
  }

 private:
  const TempFolder proc_;
  const std::string pid_;
};

}  // namespace zagent::fakes
