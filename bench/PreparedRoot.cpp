#include "bench/PreparedRoot.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "common/src/util/UniqueFd.h"

namespace zagent::bench {
namespace {

namespace fs = std::filesystem;
using common::util::UniqueFd;

constexpr int kNotRun = 127;

void Check(bool success, const std::string& what) {
  if (!success) throw std::system_error(errno, std::generic_category(), what);
}

// The mounts of this process and the numbers of its children are its own from here on.
void LeaveTheMachine() {
  const uid_t user = geteuid();
  const gid_t group = getegid();
  const int user_namespace = user == 0 ? 0 : CLONE_NEWUSER;
  Check(unshare(CLONE_NEWNS | CLONE_NEWPID | user_namespace) == 0, "unshare");
  if (user_namespace != 0) {
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1");
    WriteFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1");
  }
  Check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "making the mounts private");
}

void Bind(const fs::path& source, const fs::path& target) {
  if (fs::is_directory(source)) {
    fs::create_directories(target);
  } else {
    WriteFile(target, "");
  }
  Check(mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, "binding " + source.string());
}

// Builds the root at `folder` and makes it the root of this process, which is process 1 of its namespace.
void MoveInto(const fs::path& folder) {
  Check(mount("tmpfs", folder.c_str(), "tmpfs", 0, "mode=0755") == 0, "mounting a tmpfs");
  for (const char* name : {"bin", "sbin", "srv", "tmp", "etc", "proc", "bench"}) fs::create_directory(folder / name);
  Bind("/usr", folder / "usr");
  for (const char* name : {"/lib", "/lib64"}) {
    if (fs::is_symlink(name)) {
      fs::copy_symlink(name, folder / (name + 1));
    } else if (fs::exists(name)) {
      Bind(name, folder / (name + 1));
    }
  }
  Bind(fs::read_symlink("/proc/self/exe"), folder / (kProgram + 1));
  Bind(fs::current_path(), folder / (kResults + 1));
  WriteFile(folder / "etc/passwd", "root:x:0:0:root:/:/bin/sh\n");
  WriteFile(folder / "etc/group", "root:x:0:\n");
  Check(mount("proc", (folder / "proc").c_str(), "proc", 0, nullptr) == 0, "mounting /proc");

  Check(chdir(folder.c_str()) == 0, "chdir");
  Check(syscall(SYS_pivot_root, ".", ".") == 0, "pivot_root");
  Check(umount2(".", MNT_DETACH) == 0, "leaving the old root");
  Check(chdir("/") == 0, "chdir");
}

[[noreturn]] void BecomeCommand(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  execv(arguments.front(), arguments.data());
  throw std::system_error(errno, std::generic_category(), "execv " + command.front());
}

// The exit code of a child; kNotRun when it did not end by itself.
int Await(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0) Check(errno == EINTR, "waitpid");
  return WIFEXITED(status) ? WEXITSTATUS(status) : kNotRun;
}

// A child that does `work` and ends with its answer.
pid_t Fork(const std::function<int()>& work) {
  const pid_t child = fork();
  Check(child >= 0, "fork");
  if (child != 0) return child;
  try {
    _exit(work());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "prepared root: %s\n", error.what());
    _exit(kNotRun);
  }
}

std::string ReadAll(int fd) {
  std::string text;
  std::array<char, 4096> block{};
  for (;;) {
    const ssize_t count = read(fd, block.data(), block.size());
    if (count == 0) return text;
    if (count > 0) text.append(block.data(), static_cast<std::size_t>(count));
    Check(count > 0 || errno == EINTR, "reading the output");
  }
}

}  // namespace

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!(file << text).flush()) throw std::runtime_error("cannot write " + path);
}

std::string RunInPreparedRoot(const std::vector<std::string>& command, const std::function<void()>& furnish) {
  std::string folder = fs::temp_directory_path() / "ostrel-bench-XXXXXX";
  Check(mkdtemp(folder.data()) != nullptr, "mkdtemp");
  std::array<int, 2> ends{};
  Check(pipe(ends.data()) == 0, "pipe");
  const UniqueFd output(ends[0]);
  UniqueFd input(ends[1]);
  // The first child has the namespaces, the second is process 1 of them, the third no parent of recorded processes.
  const pid_t child = Fork([&] {
    LeaveTheMachine();
    return Await(Fork([&]() -> int {
      MoveInto(folder);
      furnish();
      return Await(Fork([&]() -> int {
        Check(dup2(input.Get(), STDOUT_FILENO) >= 0, "dup2");
        BecomeCommand(command);
      }));
    }));
  });
  input.Reset();
  const std::string text = ReadAll(output.Get());
  const int code = Await(child);
  fs::remove(folder);
  if (code != 0) throw std::runtime_error(command.front() + " ended with code " + std::to_string(code));
  return text;
}

}  // namespace zagent::bench
