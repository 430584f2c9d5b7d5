#include "src/edr/process/ProcFSProcessInfo.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "common/src/util/ProcessTimes.h"
#include "src/edr/process/NameService.h"

namespace zagent::common {
namespace {

constexpr std::size_t kMaxArguments = 255;
constexpr std::size_t kMaxArgumentBytes = 128UL * 1024UL;
constexpr std::size_t kLinkBuffer = 4096;

// What the link names; nothing, and errno, when it cannot be read.
std::optional<std::string> ReadLink(const std::string& link) {
  std::array<char, kLinkBuffer> target{};
  const ssize_t length = readlink(link.c_str(), target.data(), target.size());
  if (length < 0) return std::nullopt;
  return std::string(target.data(), static_cast<std::size_t>(length));
}

bool StartsWith(const std::string& line, const char* name) {
  return line.rfind(name, 0) == 0;
}

}  // namespace

ProcFSProcessInfo::ProcFSProcessInfo(std::int32_t pid, std::uint32_t auid, const std::string& proc_root)
    : ProcessInfo(pid, kNoParent), auid_(auid) {
  const std::string folder = proc_root + "/" + std::to_string(pid);
  const auto start = util::ReadStartSinceBoot(pid, proc_root);
  ReadArguments(folder);
  ReadCwd(folder);
  ReadImage(folder);
  ReadStatus(folder);
  ReadStart(proc_root);
  // Otherwise the program of one process would be told with the start of another.
  if (util::ReadStartSinceBoot(pid, proc_root) == start) return;
  throw ProcessInfoException("Another process got the pid " + std::to_string(pid) + " meanwhile");
}

const ImageInfo* ProcFSProcessInfo::GetSecondaryImage() const {
  throw ProcessInfoException("GetSecondary is not implemented");
}

void ProcFSProcessInfo::Update(const edr::Event& /*event*/) {
  throw ProcessInfoException("Update is not implemented");
}

void ProcFSProcessInfo::ReadArguments(const std::string& folder) {
  std::ifstream in(folder + "/cmdline", std::ios::binary);
  std::string text(kMaxArgumentBytes, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (!in.is_open() || in.bad()) {
    throw ProcessInfoException("Failed to read arguments for process with pid " + std::to_string(GetPid()));
  }
  text.resize(static_cast<std::size_t>(in.gcount()));
  std::istringstream arguments(text);
  std::string argument;
  while (arguments_.size() < kMaxArguments && std::getline(arguments, argument, '\0')) arguments_.push_back(argument);
}

void ProcFSProcessInfo::ReadCwd(const std::string& folder) {
  if (const auto target = ReadLink(folder + "/cwd")) {
    cwd_ = *target;
  } else {
    const int error = errno;
    ZLOG_DEBUG("Failed to resolve cwd for process with pid " << GetPid() << ": " << util::ErrnoText(error));
  }
}

void ProcFSProcessInfo::ReadImage(const std::string& folder) {
  const std::string link = folder + "/exe";
  const auto target = ReadLink(link);
  if (!target) {
    const int error = errno;
    ZLOG_DEBUG("Failed to resolve exe for process with pid " << GetPid() << ": " << util::ErrnoText(error));
    return;
  }
  // Through the link: it leads to the program that runs, even when that was removed or lies in another mount namespace.
  struct stat found {};
  if (stat(link.c_str(), &found) != 0) {
    const int error = errno;
    ZLOG_DEBUG("Failed to read image data for process with pid " << GetPid() << ": " << util::ErrnoText(error));
    image_ = ImageInfo(*target);
    return;
  }
  image_ = ImageInfo(*target, found);
  image_.SetNames(UserName(found.st_uid), GroupName(found.st_gid));
}

void ProcFSProcessInfo::ReadStatus(const std::string& folder) {
  const std::string asked = std::to_string(GetPid());
  std::ifstream in(folder + "/status");
  if (!in) throw ProcessInfoException("Failed to open status for process with pid " + asked);
  bool has_uids = false;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string name;
    std::int32_t number = 0;
    if (StartsWith(line, "Tgid:")) {
      if (fields >> name >> number && number != GetPid()) SetPid(number);
    } else if (StartsWith(line, "PPid:")) {
      if (fields >> name >> number) SetParent(number);
    } else if (StartsWith(line, "Uid:")) {
      ReadUids(line);
      has_uids = true;
    }
  }
  // A process that goes while its file is open breaks the reading.
  if (in.bad()) throw ProcessInfoException("Failed to read status for process with pid " + asked);
  if (!has_uids) throw ProcessInfoException("Failed to read uids for process with pid " + asked);
}

// The real and the effective one, of four.
void ProcFSProcessInfo::ReadUids(const std::string& line) {
  std::istringstream fields(line);
  std::string name;
  if (!(fields >> name >> uid_ >> euid_)) {
    throw ProcessInfoException("Failed to parse uid for process with pid " + std::to_string(GetPid()));
  }
}

// Of the process, whose thread may have been asked for.
void ProcFSProcessInfo::ReadStart(const std::string& proc_root) {
  const auto start = util::ReadStartSinceBoot(GetPid(), proc_root);
  if (!start) throw ProcessInfoException("Failed to open stat for process with pid " + std::to_string(GetPid()));
  SetStartSinceBoot(start);
  try {
    creation_time_ = util::StartSinceEpoch(*start, proc_root);
  } catch (const std::runtime_error& error) {
    throw ProcessInfoException("Failed to open stat for process with pid " + std::to_string(GetPid()) + ": " +
                               error.what());
  }
}

}  // namespace zagent::common
