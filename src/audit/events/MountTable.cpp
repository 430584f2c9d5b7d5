#include "src/audit/events/MountTable.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <map>
#include <utility>
#include <vector>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"

namespace zagent::audit::internal {
namespace {

using common::util::ErrnoText;

// The kernel allows 100,000 mounts a namespace; lines are a few hundred bytes at most as a rule.
constexpr std::size_t kMaxTableBytes = 64UL << 20U;

std::string_view NextWord(std::string_view& text) {
  const std::string_view word = text.substr(0, text.find(' '));
  text.remove_prefix(std::min(word.size() + 1, text.size()));
  return word;
}

template <typename Number>
bool ToNumber(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

// Blanks, newlines and backslashes stand as "\040", "\012" and "\134".
std::string Unescape(std::string_view text) {
  std::string plain;
  plain.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned code = 0;
    if (text[i] == '\\' && i + 3 < text.size()) {
      const auto [end, error] = std::from_chars(&text[i + 1], &text[i + 1] + 3, code, 8);
      if (error == std::errc() && end == &text[i + 1] + 3) {
        plain += static_cast<char>(code);
        i += 3;
        continue;
      }
    }
    plain += text[i];
  }
  return plain;
}

std::string_view Above(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string_view::npos ? "/" : path.substr(0, slash);
}

// 0, or the errno of the failure.
int ReadAll(int fd, std::string& text) {
  if (lseek(fd, 0, SEEK_SET) < 0) return errno;
  std::array<char, 16384> piece{};
  while (text.size() < kMaxTableBytes) {
    const ssize_t got = read(fd, piece.data(), piece.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) break;
    text.append(piece.data(), static_cast<std::size_t>(got));
  }
  return 0;
}

}  // namespace

struct MountTable::Line {
  std::uint32_t id = 0, parent = 0;
  std::string point;
  Mount mount;
};

// Which mounts can be seen: a later mount covers what was mounted at its point and below before.
class MountTable::Layers {
 public:
  explicit Layers(std::vector<Line> lines) : lines_(std::move(lines)) {
    // The list is read in pieces, and a number that is free again is given away: it may stand twice, the last one is
    // true.
    std::map<std::uint32_t, const Line*> ids;
    for (const Line& line : lines_) ids[line.id] = &line;
    for (const Line& line : lines_) {
      if (ids[line.id] != &line) continue;
      // The root of an initial file system is its own parent, that of a process in a changed root has a foreign one.
      const bool is_root = line.parent == line.id || ids.count(line.parent) == 0;
      (is_root ? roots_ : children_[line.parent]).push_back(&line);
    }
  }
  Layers(const Layers&) = delete;
  Layers& operator=(const Layers&) = delete;
  ~Layers() = default;

  Mounts Visible() const {
    Mounts visible;
    std::vector<const Line*> open = roots_;
    while (!open.empty()) {
      const Line* line = open.back();
      open.pop_back();
      visible.insert_or_assign(line->point, line->mount);
      const auto children = children_.find(line->id);
      if (children != children_.end()) AddUncovered(children->second, line->point, open);
    }
    return visible;
  }

 private:
  // Of the mounts on one mount, those that do not lie below the point of another of them.
  static void AddUncovered(const std::vector<const Line*>& mounts, const std::string& point,
                           std::vector<const Line*>& target) {
    std::map<std::string_view, const Line*> by_point;
    for (const Line* mount : mounts) by_point[mount->point] = mount;
    for (const auto& [at, mount] : by_point) {
      bool is_covered = at != point && by_point.count(point) != 0;
      for (std::string_view above = Above(at); !is_covered && at != point && above.size() > point.size();
           above = Above(above)) {
        is_covered = by_point.count(above) != 0;
      }
      if (!is_covered) target.push_back(mount);
    }
  }

  std::vector<Line> lines_;
  std::vector<const Line*> roots_;
  std::map<std::uint32_t, std::vector<const Line*>> children_;
};

MountTable::MountTable(std::string proc_root, HasChanged has_changed)
    : file_(std::move(proc_root) + "/self/mountinfo"), has_changed_(std::move(has_changed)) {}

bool MountTable::PollSaysSo(int fd) {
  pollfd asked{fd, POLLPRI, 0};
  return poll(&asked, 1, 0) > 0 && (asked.revents & (POLLPRI | POLLERR)) != 0;
}

std::optional<MountTable::Mount> MountTable::Find(std::string_view path) {
  if (!path.starts_with('/')) return std::nullopt;
  const std::lock_guard lock(mutex_);
  if (!Read()) return std::nullopt;
  while (true) {
    const auto found = mounts_.find(path);
    if (found != mounts_.end()) return found->second;
    if (path == "/") return std::nullopt;
    path = Above(path);
  }
}

bool MountTable::Open() {
  if (fd_) return true;
  fd_.Reset(open(file_.c_str(), O_RDONLY | O_CLOEXEC));
  return static_cast<bool>(fd_);
}

// False when there is nothing to answer from.
bool MountTable::Read() {
  int error = 0;
  std::string text;
  if (!Open()) {
    error = errno;
  } else if (!has_changed_(fd_.Get()) && is_read_) {
    return true;
  } else {
    error = ReadAll(fd_.Get(), text);
  }
  if (error != 0) {
    if (!failure_told_) ZLOG_WARNING("Failed to read the mounts from " << file_ << ": " << ErrnoText(error));
    failure_told_ = true;
    return is_read_;
  }
  std::vector<Line> lines;
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    if (std::optional<Line> parsed = Parse(line)) lines.push_back(std::move(*parsed));
  }
  mounts_ = Layers(std::move(lines)).Visible();
  is_read_ = true;
  return true;
}

// "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw": the mount's id, that of the mount it lies on,
// device, root within the file system, mount point, options, any number of tags, "-", type.
std::optional<MountTable::Line> MountTable::Parse(std::string_view text) {
  Line line;
  if (!ToNumber(NextWord(text), line.id) || !ToNumber(NextWord(text), line.parent)) return std::nullopt;
  const std::string_view device = NextWord(text);
  const std::size_t colon = device.find(':');
  unsigned major = 0;
  unsigned minor = 0;
  if (colon == std::string_view::npos || !ToNumber(device.substr(0, colon), major) ||
      !ToNumber(device.substr(colon + 1), minor)) {
    return std::nullopt;
  }
  line.mount.device = makedev(major, minor);
  NextWord(text);
  line.point = Unescape(NextWord(text));
  if (!line.point.starts_with('/')) return std::nullopt;
  while (!text.empty() && NextWord(text) != "-") {
  }
  line.mount.type = NextWord(text);
  return line;
}

}  // namespace zagent::audit::internal
