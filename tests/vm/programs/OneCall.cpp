// one-call: makes exactly one system call on a file, says which events the sensor owes for it, and ends at once.
//
//   one-call list [--extended]              a line for each call: its name, its forms and what it owes
//   one-call prepare CALL NAME              makes what the call needs: to be done before anybody watches
//   one-call do [OPTION...] CALL NAME [ARGUMENT]
//
//   --extended      owe what extended coverage adds, too
//   --compat        enter the kernel as a 32-bit program
//   --stay          stay until killed, so that /proc can be asked about the process
//   --chdir DIR     NAME is relative to the working folder DIR
//   --dirfd DIR     NAME is relative to the open folder DIR
//   --fd N          the object is already open as N: for calls on a descriptor
//
// ARGUMENT is NAME-2 unless given: the new name, the existing name of a link, the target of a symbolic link.
// The lines are worded as those of file-actor; "may" stands instead of "done" where an event cannot be demanded, "*"
// instead of an actor that has left no trace. They are printed before the call, so that nothing comes behind it: a
// call that fails takes them back by the exit code 1 (3 when the kernel has no such call).
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>

#include "Calls.h"

namespace one_call {
namespace {

struct Options {
  bool extended = false;
  bool stay = false;
  std::string folder;  // what relative names are relative to, for what is printed
  Request request;
};

void Check(long result, const std::string& what) {
  if (result < 0) throw std::runtime_error(what + ": " + strerror(errno));
}

void Write(int fd, const std::string& text) {
  if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) _exit(1);
}

// As the receiver prints names, so that no name can break a line.
std::string Escaped(const std::string& text) {
  static const char digits[] = "0123456789abcdef";
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      escaped += "\\\\";
    } else if (byte < 0x20 || byte == 0x7f) {
      escaped += std::string("\\x") + digits[byte >> 4] + digits[byte & 15];
    } else {
      escaped += c;
    }
  }
  return escaped;
}

std::string WithoutSlashes(std::string name) {
  while (name.size() > 1 && name.back() == '/') name.pop_back();
  return name;
}

std::string Absolute(const Options& options, const std::string& name) {
  return WithoutSlashes(name.starts_with("/") ? name : options.folder + "/" + name);
}

// ---- before

void MakeFile(const std::string& name) {
  const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  Check(fd, "create " + name);
  Write(fd, "here before the daemon\n");
  close(fd);
}

void Prepare(const Call& call, const std::string& name) {
  const std::string argument = name + "-2";
  switch (call.scene) {
    case Scene::kNothing:
      break;
    case Scene::kFile:
      MakeFile(name);
      break;
    case Scene::kMarkedFile:
      MakeFile(name);
      Check(setxattr(name.c_str(), "trusted.mark", "v", 1, 0), "setxattr " + name);
      break;
    case Scene::kFolder:
      Check(mkdir(name.c_str(), 0755), "mkdir " + name);
      break;
    case Scene::kLink:
      MakeFile(argument);
      Check(symlink(argument.c_str(), name.c_str()), "symlink " + name);
      break;
    case Scene::kTwoFiles:
      MakeFile(name);
      MakeFile(argument);
      break;
    case Scene::kArgumentFile:
      MakeFile(argument);
      break;
  }
}

// ---- what is owed

std::string SelfPath() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
  Check(length, "readlink /proc/self/exe");
  return {path, static_cast<size_t>(length)};
}

// The name that is left to tell when the old one is in no record: the inode in its folder.
std::string ByInode(const Options& options, const std::string& path) {
  struct stat found {};
  Check(fstatat(options.request.dirfd, options.request.name.c_str(), &found, AT_SYMLINK_NOFOLLOW), "stat " + path);
  return path.substr(0, path.rfind('/') + 1) + "inode:" + std::to_string(found.st_ino);
}

std::string Owed(const Options& options, std::string word, const std::string& actor, bool demanded) {
  std::string name = Absolute(options, options.request.name);
  const std::string argument = Absolute(options, options.request.argument);
  if (word.ends_with("?")) demanded = false;
  if (word.ends_with("#")) name = ByInode(options, name);
  if (word.ends_with("?") || word.ends_with("#")) word.pop_back();
  std::string event = word + " " + Escaped(name);
  if (word == "Rename") event += " -> " + Escaped(argument);
  if (word == "Back") event = "Rename " + Escaped(argument) + " -> " + Escaped(name);
  if (word == "Over") event = "Delete " + Escaped(argument);
  if (word == "Target") event = "Change " + Escaped(argument);
  return (demanded ? "done " : "may ") + event + actor + "\n";
}

// A sensor can ask /proc of a process that stays; of one that ended it has what the records say. Records of io_uring
// name no program, and those of a call on a descriptor no file: it can still be found in the working folder, and a
// folder by its identity.
std::string AllOwed(const Options& options, const Call& call) {
  const bool uring = call.name.starts_with("uring-");
  const bool findable = options.stay || call.forms != Forms::kDescriptor || call.scene == Scene::kFolder ||
                        (!options.folder.empty() && options.request.dirfd == AT_FDCWD);
  const std::string program = uring && !options.stay ? "*" : SelfPath();
  const std::string actor =
      " actor=" + program + " pid=" + std::to_string(getpid()) + " user=root audit-user=system-user";
  std::string lines;
  const std::string words = (options.extended ? call.extended_events : call.events) + " ";
  for (size_t begin = 0, end = 0; (end = words.find(' ', begin)) != std::string::npos; begin = end + 1) {
    if (end > begin) lines += Owed(options, words.substr(begin, end - begin), actor, findable);
  }
  return lines;
}

// ---- doing

// The object of a call on a descriptor. Nothing of this is written to, and nobody is logged in: no event.
void OpenObject(const Call& call, Request& request) {
  if (call.forms != Forms::kDescriptor || request.fd >= 0) return;
  request.fd = openat(request.dirfd, request.name.c_str(), call.open_flags | O_CLOEXEC);
  Check(request.fd, "open " + request.name);
}

[[noreturn]] void Do(const Options& options, const Call& call) {
  Write(STDOUT_FILENO, AllOwed(options, call));
  const long result = call.run(options.request);
  if (result >= 0) _exit(0);
  Write(STDERR_FILENO, "one-call: " + call.name + ": " + strerror(static_cast<int>(-result)) + "\n");
  _exit(result == -ENOSYS ? 3 : 1);
}

// The child makes the call and stays. It says so by closing the pipe; by ending before, that it failed.
int DoAndStay(const Options& options, const Call& call) {
  int ends[2];
  Check(pipe(ends), "pipe");
  const pid_t child = fork();
  Check(child, "fork");
  if (child == 0) {
    Write(STDOUT_FILENO, AllOwed(options, call));
    const long result = call.run(options.request);
    const int code = result >= 0 ? 0 : result == -ENOSYS ? 3 : 1;
    if (code != 0) Write(STDERR_FILENO, "one-call: " + call.name + ": " + strerror(static_cast<int>(-result)) + "\n");
    Write(ends[1], std::string(1, static_cast<char>(code)));
    if (code != 0) _exit(code);
    while (true) pause();
  }
  char code = 1;
  close(ends[1]);
  Check(read(ends[0], &code, 1), "read");
  return code;
}

void List(bool extended) {
  for (const Call& call : AllCalls()) {
    const char* forms = call.forms == Forms::kAt ? "names,at" : call.forms == Forms::kNames ? "names" : "descriptor";
    const std::string& owed = extended ? call.extended_events : call.events;
    Write(STDOUT_FILENO, call.name + " " + forms + " compat=" + (call.compat_number < 0 ? "no" : "yes") +
                             " owes=" + (owed.empty() ? "nothing" : owed) + "\n");
  }
}

int Usage() {
  Write(STDERR_FILENO,
        "usage: one-call list [--extended]\n"
        "       one-call prepare CALL NAME\n"
        "       one-call do [--extended] [--compat] [--stay] [--chdir DIR | --dirfd DIR] [--fd N] CALL NAME "
        "[ARGUMENT]\n");
  return 2;
}

// Returns the index of the first argument that is no option.
int TakeOptions(int argc, char** argv, Options& options) {
  int next = 2;
  for (; next < argc && std::string(argv[next]).starts_with("--"); ++next) {
    const std::string option = argv[next];
    if (option == "--extended") {
      options.extended = true;
    } else if (option == "--compat") {
      options.request.compat = true;
    } else if (option == "--stay") {
      options.stay = true;
    } else if (++next == argc) {
      throw std::runtime_error("a value is missing");
    } else if (option == "--chdir") {
      options.folder = argv[next];
      Check(chdir(argv[next]), "chdir " + options.folder);
    } else if (option == "--dirfd") {
      options.folder = argv[next];
      options.request.dirfd = open(argv[next], O_PATH | O_DIRECTORY | O_CLOEXEC);
      Check(options.request.dirfd, "open " + options.folder);
    } else if (option == "--fd") {
      options.request.fd = atoi(argv[next]);
    } else {
      throw std::runtime_error("no such option: " + option);
    }
  }
  return next;
}

int Run(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  Options options;
  const int next = TakeOptions(argc, argv, options);
  if (what == "list" && next == argc) {
    List(options.extended);
    return 0;
  }
  if (argc - next < 2) return Usage();
  const Call& call = CallNamed(argv[next]);
  options.request.name = argv[next + 1];
  options.request.argument = argc - next > 2 ? argv[next + 2] : WithoutSlashes(options.request.name) + "-2";
  if (what == "prepare") {
    Prepare(call, options.request.name);
    return 0;
  }
  if (what != "do") return Usage();
  OpenObject(call, options.request);
  if (options.stay) return DoAndStay(options, call);
  Do(options, call);
}

}  // namespace
}  // namespace one_call

int main(int argc, char** argv) {
  try {
    return one_call::Run(argc, argv);
  } catch (const std::exception& failure) {
    one_call::Write(STDERR_FILENO, std::string("one-call: ") + failure.what() + "\n");
    return 1;
  }
}
