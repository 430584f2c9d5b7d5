// event-load: makes a known number of events, in bursts, so that what a sensor spends on them can be compared.
//
//   event-load FOLDER FILES EXECS CONNECTS [BURST [PAUSE]]
//
// FILES times one of the files 0 to 99 of FOLDER, which are there already, is opened for writing. EXECS times a child
// runs this program, which ends at once. CONNECTS times a UDP socket is connected to 192.0.2.1, which sends nothing.
// They come mixed and evenly, BURST of them (default: 1000) at once and then a pause of PAUSE milliseconds (default:
// 250).
//
// Prints "made FILES files EXECS execs CONNECTS connects" in the end.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr const char* kSelf = "/proc/self/exe";
constexpr const char* kChildArgument = "--end";
constexpr unsigned long kFilesInFolder = 100;

void Check(long result, const std::string& what) {
  if (result < 0) throw std::runtime_error(what + ": " + strerror(errno));
}

void WriteOnce(const std::string& path) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  Check(fd, "open " + path);
  close(fd);
}

void ExecOnce() {
  char self[] = "event-load";
  char argument[] = "--end";
  char* arguments[] = {self, argument, nullptr};
  pid_t child = 0;
  errno = posix_spawn(&child, kSelf, nullptr, nullptr, arguments, environ);
  Check(errno == 0 ? 0 : -1, "run a child");
  Check(waitpid(child, nullptr, 0), "wait for the child");
}

void ConnectOnce() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  Check(fd, "socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(9);
  inet_pton(AF_INET, "192.0.2.1", &address.sin_addr);
  // The call is what counts, whatever comes of it.
  static_cast<void>(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  close(fd);
}

// A kind of event and how many of it are due after each step, so that all kinds end with the last one.
struct Kind {
  unsigned long wanted;
  unsigned long made = 0;
  [[nodiscard]] bool IsDue(unsigned long step, unsigned long steps) const { return made * steps < wanted * step; }
};

void Run(const std::string& folder, Kind files, Kind execs, Kind connects, unsigned long burst, unsigned pause_ms) {
  std::vector<std::string> paths;
  for (unsigned long i = 0; i < kFilesInFolder; ++i) paths.push_back(folder + "/" + std::to_string(i));
  const unsigned long steps = files.wanted + execs.wanted + connects.wanted;
  for (unsigned long step = 1; step <= steps; ++step) {
    for (; files.IsDue(step, steps); ++files.made) WriteOnce(paths[files.made % kFilesInFolder]);
    for (; execs.IsDue(step, steps); ++execs.made) ExecOnce();
    for (; connects.IsDue(step, steps); ++connects.made) ConnectOnce();
    if (step % burst == 0) usleep(pause_ms * 1000);
  }
  std::cout << "made " << files.made << " files " << execs.made << " execs " << connects.made << " connects\n";
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], kChildArgument) == 0) return 0;
  if (argc < 5 || argc > 7) {
    std::cerr << "usage: event-load FOLDER FILES EXECS CONNECTS [BURST [PAUSE]]\n";
    return 2;
  }
  try {
    const unsigned long burst = argc > 5 ? std::stoul(argv[5]) : 1000;
    if (burst == 0) throw std::runtime_error("a burst has one event at the least");
    Run(argv[1], {std::stoul(argv[2])}, {std::stoul(argv[3])}, {std::stoul(argv[4])}, burst,
        argc > 6 ? static_cast<unsigned>(std::stoul(argv[6])) : 250);
  } catch (const std::exception& failure) {
    std::cerr << "event-load: " << failure.what() << "\n";
    return 1;
  }
}
