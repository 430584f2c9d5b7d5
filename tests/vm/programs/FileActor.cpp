// file-actor: does one file operation and says which events the sensor owes for it.
//
//   file-actor [--loginuid N] [--uid N] [--chdir DIR] [--dirfd DIR] [--linger SECONDS] OPERATION NAME [ARGUMENT]
//
// One line an expected event, worded as the receiver words an event it was sent, without the id:
//
//   done Create /srv/watched/a actor=/usr/local/bin/file-actor pid=93 user=alice audit-user=system-user
//
// --chdir works with names below a working folder, --dirfd with names below an open folder (the ...at calls), --linger
// stays alive afterwards, for a sensor that asks /proc about the process.
// Each operation is exactly one system call on the named object, so that no other event can come of it.
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Options {
  std::string folder;  // what relative names are relative to, for the printed line
  int dirfd = AT_FDCWD;
  unsigned linger = 0;  // seconds
  std::string name;
  std::string argument;
};

void Check(int result, const std::string& what) {
  if (result < 0) throw std::runtime_error(what + ": " + strerror(errno));
}

// As the receiver prints names, so that no name can break a line.
std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\\') {
      escaped += "\\\\";
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      char code[5];
      snprintf(code, sizeof(code), "\\x%02x", static_cast<unsigned>(c));
      escaped += code;
    } else {
      escaped += c;
    }
  }
  return escaped;
}

std::string Absolute(const Options& options, const std::string& name) {
  return name.starts_with("/") ? name : options.folder + "/" + name;
}

void OpenOnce(const Options& options, int flags) {
  const int fd = openat(options.dirfd, options.name.c_str(), flags | O_CLOEXEC, 0644);
  Check(fd, "open " + options.name);
  if ((flags & O_ACCMODE) == O_RDONLY) {
    char byte;
    Check(static_cast<int>(read(fd, &byte, 1)), "read " + options.name);
  } else {
    Check(static_cast<int>(write(fd, "written\n", 8)), "write " + options.name);
  }
  close(fd);
}

void Chmod(const Options& options) {
  const auto mode = static_cast<mode_t>(std::stoul(options.argument, nullptr, 8));
  Check(fchmodat(options.dirfd, options.name.c_str(), mode, 0), "chmod " + options.name);
}

void Chown(const Options& options) {
  const auto owner = static_cast<uid_t>(std::stoul(options.argument));
  Check(fchownat(options.dirfd, options.name.c_str(), owner, owner, 0), "chown " + options.name);
}

// Of a link itself.
void Lchown(const Options& options) {
  const auto owner = static_cast<uid_t>(std::stoul(options.argument));
  Check(fchownat(options.dirfd, options.name.c_str(), owner, owner, AT_SYMLINK_NOFOLLOW), "lchown " + options.name);
}

void List(const Options& options) {
  const int fd = openat(options.dirfd, options.name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  Check(fd, "open " + options.name);
  close(fd);
}

void Rename(const Options& options) {
  Check(renameat(options.dirfd, options.name.c_str(), options.dirfd, options.argument.c_str()), "rename");
}

void Link(const Options& options) {
  Check(linkat(options.dirfd, options.argument.c_str(), options.dirfd, options.name.c_str(), 0), "link");
}

struct Operation {
  bool has_argument;
  std::function<void(const Options&)> run;
  std::vector<std::string> actions;  // of the events that the operation owes
};

const std::map<std::string, Operation>& Operations() {
  static const std::map<std::string, Operation> table{
      {"create", {false, [](const Options& o) { OpenOnce(o, O_WRONLY | O_CREAT | O_EXCL); }, {"Create"}}},
      {"write", {false, [](const Options& o) { OpenOnce(o, O_WRONLY | O_APPEND); }, {"Write"}}},
      {"read", {false, [](const Options& o) { OpenOnce(o, O_RDONLY); }, {"Read"}}},
      {"list", {false, List, {"Read"}}},
      {"chmod", {true, Chmod, {"Change"}}},
      {"chown", {true, Chown, {"Change"}}},
      {"lchown", {true, Lchown, {"Change"}}},
      {"rename", {true, Rename, {"Rename"}}},
      {"rename-over", {true, Rename, {"Rename", "Delete"}}},
      {"unlink", {false, [](const Options& o) { Check(unlinkat(o.dirfd, o.name.c_str(), 0), "unlink"); }, {"Delete"}}},
      {"mkdir", {false, [](const Options& o) { Check(mkdirat(o.dirfd, o.name.c_str(), 0755), "mkdir"); }, {"Create"}}},
      {"rmdir",
       {false, [](const Options& o) { Check(unlinkat(o.dirfd, o.name.c_str(), AT_REMOVEDIR), "rmdir"); }, {"Delete"}}},
      {"symlink",
       {true,
        [](const Options& o) { Check(symlinkat(o.argument.c_str(), o.dirfd, o.name.c_str()), "symlink"); },
        {"Create"}}},
      {"link", {true, Link, {"Create"}}},
  };
  return table;
}

std::string SelfPath() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
  Check(static_cast<int>(length), "readlink /proc/self/exe");
  return {path, static_cast<size_t>(length)};
}

std::string UserName(uid_t uid) {
  const passwd* entry = getpwuid(uid);
  return entry != nullptr ? entry->pw_name : std::to_string(uid);
}

// The login user that the kernel keeps for this process; nobody logged in is "system-user" to the sensor.
std::string LoginName() {
  FILE* file = fopen("/proc/self/loginuid", "re");
  unsigned uid = 0;
  if (file == nullptr || fscanf(file, "%u", &uid) != 1) throw std::runtime_error("cannot read /proc/self/loginuid");
  fclose(file);
  return uid == UINT_MAX ? "system-user" : UserName(uid);
}

void SetLoginUid(const std::string& uid) {
  FILE* file = fopen("/proc/self/loginuid", "we");
  if (file == nullptr || fputs(uid.c_str(), file) < 0 || fclose(file) != 0) {
    throw std::runtime_error("cannot write /proc/self/loginuid");
  }
}

void Report(const std::string& operation, const Options& options) {
  const std::string name = Absolute(options, options.name);
  for (const std::string& action : Operations().at(operation).actions) {
    std::string path = name;
    if (action == "Rename") path += " -> " + Absolute(options, options.argument);
    if (operation == "rename-over" && action == "Delete") path = Absolute(options, options.argument);
    std::cout << "done " << action << " " << Escaped(path) << " actor=" << SelfPath() << " pid=" << getpid()
              << " user=" << UserName(getuid()) << " audit-user=" << LoginName() << std::endl;
  }
}

int Usage() {
  std::cerr << "usage: file-actor [--loginuid N] [--uid N] [--chdir DIR] [--dirfd DIR] [--linger SECONDS]\n"
               "                  OPERATION NAME [ARGUMENT]\n"
               "operations:";
  for (const auto& [name, operation] : Operations()) std::cerr << " " << name;
  std::cerr
      << "\nARGUMENT: chmod octal mode, chown and lchown uid, rename new name, symlink target, link existing name\n";
  return 2;
}

// The options in front of the operation; returns the first argument that is none.
int TakeOptions(int argc, char** argv, Options& options) {
  std::map<std::string, std::string> given;
  int next = 1;
  for (; next + 1 < argc && std::string(argv[next]).starts_with("--"); next += 2) given[argv[next]] = argv[next + 1];
  // Folders first: they are opened with the rights, and without the login user, that the operation must not need.
  if (given.contains("--chdir")) {
    options.folder = given["--chdir"];
    Check(chdir(options.folder.c_str()), "chdir " + options.folder);
  }
  if (given.contains("--dirfd")) {
    options.folder = given["--dirfd"];
    options.dirfd = open(options.folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    Check(options.dirfd, "open " + options.folder);
  }
  if (given.contains("--linger")) options.linger = static_cast<unsigned>(std::stoul(given["--linger"]));
  if (given.contains("--loginuid")) SetLoginUid(given["--loginuid"]);
  if (given.contains("--uid")) {
    const auto uid = static_cast<uid_t>(std::stoul(given["--uid"]));
    Check(setresgid(uid, uid, uid), "setresgid");
    Check(setresuid(uid, uid, uid), "setresuid");
  }
  return next;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Options options;
    const int next = TakeOptions(argc, argv, options);
    const int left = argc - next;
    const auto operation = left > 0 ? Operations().find(argv[next]) : Operations().end();
    if (operation == Operations().end() || left != (operation->second.has_argument ? 3 : 2)) return Usage();
    options.name = argv[next + 1];
    if (operation->second.has_argument) options.argument = argv[next + 2];
    operation->second.run(options);
    Report(operation->first, options);
    sleep(options.linger);
    return 0;
  } catch (const std::exception& failure) {
    std::cerr << "file-actor: " << failure.what() << "\n";
    return 1;
  }
}
