// one-call: makes exactly one system call on a file, says which events the sensor owes for it, and ends at once.
//
//   one-call list                            a line for each call: its name, its forms, whether 32-bit programs have it
//   one-call prepare [REQUEST]               makes what the call needs: before anybody watches
//   one-call batch                           makes the calls of the requests on standard input, each in a child of its
//   own one-call do REQUEST                      makes the call
//
// A request is [OPTION...] CALL NAME [ARGUMENT]. On standard input, where prepare finds its requests too when none is
// given, each is a line, and its words are separated by blanks.
//
//   --extended      owe what extended coverage adds, too
//   --compat        enter the kernel as a 32-bit program
//   --loginuid N    the user N is logged in, from the moment of the call
//   --stay          (batch) the child stays until killed, so that /proc can be asked about it
//   --chdir DIR     NAME is relative to the working folder DIR
//   --dirfd DIR     NAME is relative to the open folder DIR
//
// ARGUMENT is NAME-2 unless given: the new name, the existing name of a link, the target of a symbolic link.
// What is owed is worded as file-actor words it; "may" stands instead of "done" where an event cannot be demanded, "*"
// instead of an actor that has left no trace. It is printed before the call, so that nothing comes behind that: a call
// that fails takes it back by the exit code 1 (3 when the kernel has no such call). In a batch each line has the
// request and a tabulator in front; "none pid=N" says that nothing is owed, "no such call" and "failed: WHY" that
// nothing was done.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Calls.h"

namespace one_call {
namespace {

using Words = std::vector<std::string>;

struct Options {
  bool extended = false;
  bool stay = false;
  std::string folder;          // what relative names are relative to
  bool by_descriptor = false;  // an open folder, not the working one
  std::string loginuid;
  std::string call;
  Request request;
};

void Check(long result, const std::string& what) {
  if (result < 0) throw std::runtime_error(what + ": " + strerror(errno));
}

void Write(int fd, const std::string& text) {
  if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) _exit(1);
}

// Names are bytes, documents are UTF-8: U+FFFD stands for each byte that is no part of a character. Characters of three
// bytes at most are known here, and no overlong forms are made.
std::string ReplaceBadBytes(const std::string& text) {
  std::string good;
  for (size_t i = 0; i < text.size();) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const size_t length = byte < 0x80 ? 1 : byte >= 0xc2 && byte < 0xe0 ? 2 : byte > 0xe0 && byte < 0xed ? 3 : 0;
    bool whole = length > 0 && i + length <= text.size();
    for (size_t k = 1; whole && k < length; ++k) whole = (static_cast<unsigned char>(text[i + k]) & 0xc0) == 0x80;
    good += whole ? text.substr(i, length) : "\xef\xbf\xbd";
    i += whole ? length : 1;
  }
  return good;
}

// As the receiver prints names, so that no name can break a line.
std::string Escaped(const std::string& name) {
  static const char digits[] = "0123456789abcdef";
  std::string escaped;
  for (const char c : ReplaceBadBytes(name)) {
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

void Prepare(const std::string&, const Options& options) {
  const std::string name = Absolute(options, options.request.name);
  const std::string argument = Absolute(options, options.request.argument);
  switch (CallNamed(options.call).scene) {
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

// A sensor can ask /proc of a process that stays; of one that ended it has what the records say. Those of a call on a
// descriptor, and of an opening by handle, name no file: it can still be found in the working folder, and a folder by
// its identity.
bool IsFindable(const Options& options, const Call& call) {
  if (call.scene == Scene::kFolder || (!options.folder.empty() && options.request.dirfd == AT_FDCWD)) return true;
  if (call.name == "open-by-handle") return false;
  return options.stay || call.forms != Forms::kDescriptor || call.name == "ftruncate";
}

// A login user is known by the name in /etc/passwd; nobody logged in is "system-user" to the sensor.
std::string LoginName(const std::string& uid) {
  if (uid.empty()) return "system-user";
  std::ifstream passwd("/etc/passwd");
  for (std::string line; std::getline(passwd, line);) {
    std::istringstream fields(line);
    std::string name, password, number;
    if (std::getline(std::getline(std::getline(fields, name, ':'), password, ':'), number, ':') && number == uid)
      return name;
  }
  return uid;
}

// Records of io_uring name neither program nor login user.
std::string ActorOf(const Options& options, const Call& call) {
  const std::string process = " pid=" + std::to_string(getpid());
  if (call.name.starts_with("uring-")) return " actor=" + (options.stay ? SelfPath() : "*") + process;
  return " actor=" + SelfPath() + process + " user=root audit-user=" + LoginName(options.loginuid);
}

std::string Owed(const Options& options, const Call& call, std::string word) {
  bool demanded = IsFindable(options, call);
  std::string name = Absolute(options, options.request.name);
  const std::string argument = Absolute(options, options.request.argument);
  if (word.ends_with("+") && options.request.compat) demanded = false;
  if (word.ends_with("#")) name = ByInode(options, name);
  if (word.ends_with("+") || word.ends_with("#")) word.pop_back();
  std::string event = word + " " + Escaped(name);
  if (word == "Rename") event += " -> " + Escaped(argument);
  if (word == "Back") event = "Rename " + Escaped(argument) + " -> " + Escaped(name);
  if (word == "Over") event = "Delete " + Escaped(argument);
  if (word == "Target") event = "Change " + Escaped(argument);
  return (demanded ? "done " : "may ") + event + ActorOf(options, call) + "\n";
}

std::string AllOwed(const Options& options, const Call& call) {
  std::string lines;
  const std::string words = (options.extended ? call.extended_events : call.events) + " ";
  for (size_t begin = 0, end = 0; (end = words.find(' ', begin)) != std::string::npos; begin = end + 1) {
    const std::string word = words.substr(begin, end - begin);
    if (word.empty() || (word == "Read" && options.loginuid.empty())) continue;
    lines += Owed(options, call, word);
  }
  return lines;
}

// ---- doing

// The object of a call on a descriptor. Nobody is logged in: opening it to read is no event.
void OpenObject(const Call& call, Request& request) {
  if (call.forms != Forms::kDescriptor) return;
  request.fd = openat(request.dirfd, request.name.c_str(), call.open_flags | O_CLOEXEC);
  Check(request.fd, "open " + request.name);
}

// The last thing of a process that does not stay.
int MakeCall(const Options& options, const Call& call, int out) {
  const long result = call.run(options.request);
  if (result >= 0) return 0;
  Write(out, "failed: " + call.name + ": " + strerror(static_cast<int>(-result)) + "\n");
  return result == -ENOSYS ? 3 : 1;
}

// Returns the index of the first argument that is no option.
size_t TakeOptions(const Words& words, Options& options) {
  size_t next = 0;
  for (; next < words.size() && words[next].starts_with("--"); ++next) {
    const std::string& option = words[next];
    if (option == "--extended") {
      options.extended = true;
    } else if (option == "--compat") {
      options.request.compat = true;
    } else if (option == "--stay") {
      options.stay = true;
    } else if (++next == words.size()) {
      throw std::runtime_error("a value is missing");
    } else if (option == "--loginuid") {
      options.loginuid = words[next];
    } else if (option == "--chdir" || option == "--dirfd") {
      options.folder = words[next];
      options.by_descriptor = option == "--dirfd";
    } else {
      throw std::runtime_error("no such option: " + option);
    }
  }
  return next;
}

Options ReadRequest(const Words& words) {
  Options options;
  const size_t next = TakeOptions(words, options);
  if (words.size() < next + 2) throw std::runtime_error("a call and a name are missing");
  options.call = words[next];
  options.request.name = words[next + 1];
  options.request.argument = words.size() > next + 2 ? words[next + 2] : WithoutSlashes(options.request.name) + "-2";
  return options;
}

// Everything up to the call: folders, the object, and the words.
void GetReady(Options& options, const Call& call, int out) {
  if (options.by_descriptor) {
    options.request.dirfd = open(options.folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    Check(options.request.dirfd, "open " + options.folder);
  } else if (!options.folder.empty()) {
    Check(chdir(options.folder.c_str()), "chdir " + options.folder);
  }
  OpenObject(call, options.request);
  const std::string owed = AllOwed(options, call);
  if (!options.loginuid.empty()) {
    const int fd = open("/proc/self/loginuid", O_WRONLY | O_CLOEXEC);
    Check(fd, "open /proc/self/loginuid");
    Write(fd, options.loginuid);
    close(fd);
  }
  Write(out, owed.empty() ? "none pid=" + std::to_string(getpid()) + "\n" : owed);
}

// In the child. One that stays tells by closing the pipe that its call was made.
[[noreturn]] void DoAsChild(Options options, int out) {
  const Call& call = CallNamed(options.call);
  GetReady(options, call, out);
  const int code = MakeCall(options, call, out);
  if (code != 0 || !options.stay) _exit(code);
  close(out);
  while (true) pause();
}

std::string ReadAll(int fd) {
  std::string text;
  char part[4096];
  for (ssize_t count = 0; (count = read(fd, part, sizeof(part))) > 0;) text.append(part, static_cast<size_t>(count));
  return text;
}

void DoInChild(const std::string& line, const Options& options) {
  int ends[2];
  Check(pipe2(ends, O_CLOEXEC), "pipe");
  const pid_t child = fork();
  Check(child, "fork");
  if (child == 0) {
    close(ends[0]);
    dup2(ends[1], STDOUT_FILENO);  // who reads the batch's output must not wait for one that stays
    try {
      close(ends[1]);
      DoAsChild(options, STDOUT_FILENO);
    } catch (const std::exception& failure) {
      Write(STDOUT_FILENO, std::string("failed: ") + failure.what() + "\n");
      _exit(1);
    }
  }
  close(ends[1]);
  const std::string said = ReadAll(ends[0]);
  close(ends[0]);
  const size_t failed = said.find("failed: ");
  const bool is_over = !options.stay || failed != std::string::npos;
  int status = 0;
  if (is_over && waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 3) {
    Write(STDOUT_FILENO, line + "\tno such call\n");
    return;
  }
  std::istringstream lines(said);
  if (failed != std::string::npos) lines.str(said.substr(failed));
  for (std::string each; std::getline(lines, each);) Write(STDOUT_FILENO, line + "\t" + each + "\n");
}

void ForEachRequest(const std::function<void(const std::string&, Options)>& take) {
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream in(line);
    take(line, ReadRequest({std::istream_iterator<std::string>(in), {}}));
  }
}

void List() {
  for (const Call& call : AllCalls()) {
    const char* forms = call.forms == Forms::kAt ? "at" : call.forms == Forms::kNames ? "names" : "descriptor";
    Write(STDOUT_FILENO, call.name + " " + forms + (call.compat_number < 0 ? "" : " compat") + "\n");
  }
}

int Run(const std::string& what, const Words& words) {
  if (what == "list") {
    List();
  } else if (what == "prepare" && !words.empty()) {
    Prepare("", ReadRequest(words));
  } else if (what == "prepare") {
    ForEachRequest(Prepare);
  } else if (what == "batch") {
    ForEachRequest(DoInChild);
  } else if (what == "do") {
    Options options = ReadRequest(words);
    const Call& call = CallNamed(options.call);
    GetReady(options, call, STDOUT_FILENO);
    _exit(MakeCall(options, call, STDERR_FILENO));
  } else {
    Write(STDERR_FILENO,
          "usage: one-call list|prepare|batch\n"
          "       one-call do [OPTION...] CALL NAME [ARGUMENT]\n");
    return 2;
  }
  return 0;
}

}  // namespace
}  // namespace one_call

int main(int argc, char** argv) {
  try {
    return one_call::Run(argc > 1 ? argv[1] : "", {argv + std::min(argc, 2), argv + argc});
  } catch (const std::exception& failure) {
    one_call::Write(STDERR_FILENO, std::string("one-call: ") + failure.what() + "\n");
    return 1;
  }
}
