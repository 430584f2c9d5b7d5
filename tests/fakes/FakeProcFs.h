#pragma once

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/fakes/TempFolder.h"

namespace zagent::fakes {

// A procfs with the processes that a test starts and ends, on a machine that was started at kBootTime.
class FakeProcFs {
 public:
  static constexpr std::int64_t kBootTime = 1'600'000'000;  // seconds since the epoch

  struct Process {
    std::int32_t ppid = 1;
    std::string image = "/bin/sh";  // need not exist
    std::vector<std::string> arguments = {"sh", "-c", "true"};
    std::string cwd = "/srv";
    std::uint32_t uid = 0;
    std::uint32_t euid = 0;
    double start = 100;          // seconds after the boot
    std::int32_t tgid = 0;       // of a thread: the process that it belongs to
    std::string login_uid = "";  // no file without one
  };

  FakeProcFs() {
    SetBootTime(kBootTime);
    root_.Write("meminfo", "MemTotal:       1000000 kB\n");
  }

  [[nodiscard]] const std::string& Root() const { return root_.Path(); }

  void SetBootTime(std::int64_t seconds) const {
    root_.Write("stat", "cpu  1 2 3\nbtime " + std::to_string(seconds) + "\n");
  }

  // Makes a process or replaces the one of the pid.
  void Start(std::int32_t pid, const Process& process) const {
    End(pid);
    const std::string name = std::to_string(pid);
    std::filesystem::create_directory(root_ / name);
    std::string cmdline;
    for (const std::string& argument : process.arguments) cmdline += argument + '\0';
    root_.Write(name + "/cmdline", cmdline);
    if (!process.cwd.empty()) std::filesystem::create_symlink(process.cwd, root_ / (name + "/cwd"));
    if (!process.image.empty()) std::filesystem::create_symlink(process.image, root_ / (name + "/exe"));
    const std::string tgid = std::to_string(process.tgid != 0 ? process.tgid : pid);
    const auto uids = std::to_string(process.uid) + "\t" + std::to_string(process.euid) + "\t0\t0\n";
    root_.Write(name + "/status", "Name:\tsh\nState:\tS (sleeping)\nTgid:\t" + tgid + "\nNgid:\t0\nPid:\t" + name +
                                      "\nPPid:\t" + std::to_string(process.ppid) + "\nTracerPid:\t0\nUid:\t" + uids +
                                      "Gid:\t0\t0\t0\t0\n");
    const auto ticks = std::llround(process.start * static_cast<double>(sysconf(_SC_CLK_TCK)));
    root_.Write(name + "/stat", name + " (a (sh) b) S " + std::to_string(process.ppid) +
                                    " 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 " + std::to_string(ticks) + " 20\n");
    if (!process.login_uid.empty()) root_.Write(name + "/loginuid", process.login_uid);
  }
  void Start(std::int32_t pid) const { Start(pid, Process()); }
  // A process of which nothing is told but when it was started, in clock ticks, which program it runs, and its user.
  // Without a program it has ended and waits for its parent.
  void Start(std::int32_t pid, std::int64_t start_ticks, const std::string& program = "", std::uint32_t uid = 0) const {
    Start(pid, {.image = program,
                .cwd = "",
                .uid = uid,
                .euid = uid,
                .start = static_cast<double>(start_ticks) / static_cast<double>(sysconf(_SC_CLK_TCK))});
    Remove(pid, "cmdline");
  }

  void End(std::int32_t pid) const { std::filesystem::remove_all(root_ / std::to_string(pid)); }

  void Write(std::int32_t pid, const std::string& file, const std::string& text) const {
    root_.Write(std::to_string(pid) + "/" + file, text);
  }
  void Remove(std::int32_t pid, const std::string& file) const {
    std::filesystem::remove(root_ / (std::to_string(pid) + "/" + file));
  }

 private:
  const TempFolder root_;
};

}  // namespace zagent::fakes
