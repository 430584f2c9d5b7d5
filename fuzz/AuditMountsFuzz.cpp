// Feeds text to the table of mounts, in place of the kernel's own list. Lines that cannot be read are stepped over.
// Where the list is one that a kernel could give, who walks down a path and enters every mount on his way must come to
// the mount that the table answers with; where it is not, there is an answer all the same, and it is in the list.
#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "common/src/util/UniqueFd.h"
#include "fuzz/SilentLog.h"
#include "src/audit/events/MountTable.h"
#include "tests/fakes/TempFolder.h"

namespace {

using zagent::audit::internal::MountTable;
using Mount = MountTable::Mount;

struct Line {
  unsigned id = 0, parent = 0;
  std::string point;
  Mount mount;
};

std::vector<std::string> Split(std::string_view text, char between) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c == between) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

std::optional<unsigned> NumberIn(const std::string& text) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::string Plain(const std::string& text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool is_code = text[i] == '\\' && text.size() - i > 3 &&
                         std::all_of(&text[i + 1], &text[i + 4], [](char c) { return c >= '0' && c <= '7'; });
    plain +=
        is_code ? static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0')) : text[i];
    if (is_code) i += 3;
  }
  return plain;
}

std::optional<Line> LineIn(const std::string& text) {
  std::vector<std::string> words = Split(text, ' ');
  words.resize(std::max<std::size_t>(words.size(), 6));
  const std::vector<std::string> device = Split(words[2], ':');
  if (device.size() != 2) return std::nullopt;
  const auto id = NumberIn(words[0]);
  const auto parent = NumberIn(words[1]);
  const auto major = NumberIn(device[0]);
  const auto minor = NumberIn(device[1]);
  if (!id || !parent || !major || !minor) return std::nullopt;
  Line line{*id, *parent, Plain(words[4]), {makedev(*major, *minor), ""}};
  if (!line.point.starts_with('/')) return std::nullopt;
  const auto dash = std::find(words.begin() + 5, words.end(), "-");
  if (dash != words.end() && dash + 1 != words.end()) line.mount.type = *(dash + 1);
  return line;
}

// "/" and "/a", "/a/b" for "/a/b".
std::vector<std::string> PrefixesOf(const std::string& path) {
  std::vector<std::string> prefixes = {"/"};
  for (std::size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
    prefixes.push_back(path.substr(0, at));
  }
  if (path.size() > 1) prefixes.push_back(path);
  return prefixes;
}

bool IsNormal(const std::string& path) {
  return path == "/" || (path.find("//") == std::string::npos && !path.ends_with('/'));
}

bool IsWithin(const std::string& path, const std::string& folder) {
  return folder == "/" || path == folder || path.starts_with(folder + "/");
}

// A tree of mounts, each on one that stands in the list.
class Tree {
 public:
  explicit Tree(const std::vector<Line>& lines) {
    std::map<unsigned, const Line*> by_id;
    for (const Line& line : lines)
      is_sound_ = by_id.emplace(line.id, &line).second && IsNormal(line.point) && is_sound_;
    for (const Line& line : lines) {
      const auto parent = by_id.find(line.parent);
      if (parent == by_id.end() || line.parent == line.id) {
        is_sound_ = is_sound_ && root_ == nullptr;
        root_ = &line;
      } else {
        is_sound_ = is_sound_ && IsWithin(line.point, parent->second->point);
        children_[{line.parent, line.point}] = &line;  // the last one lies on top
      }
    }
    is_sound_ = is_sound_ && root_ != nullptr;
  }

  [[nodiscard]] bool IsSound() const { return is_sound_; }

  [[nodiscard]] std::optional<Mount> Walk(const std::string& path) const {
    if (!IsWithin(path, root_->point)) return std::nullopt;
    const Line* at = root_;
    for (const std::string& prefix : PrefixesOf(path)) {
      for (auto on = children_.find({at->id, prefix}); on != children_.end(); on = children_.find({at->id, prefix})) {
        at = on->second;
      }
    }
    return at->mount;
  }

 private:
  bool is_sound_ = true;
  const Line* root_ = nullptr;
  std::map<std::pair<unsigned, std::string>, const Line*> children_;
};

// The file that stands for the kernel's list.
class List {
 public:
  List() {
    std::filesystem::create_directory(proc_ / "self");
    file_.Reset(open((proc_ / "self/mountinfo").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (!file_) std::abort();
  }
  MountTable& Write(std::string_view text) {
    const bool written = ftruncate(file_.Get(), 0) == 0 &&
                         pwrite(file_.Get(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size());
    if (!written) std::abort();
    return table_;
  }

 private:
  zagent::fakes::TempFolder proc_;
  zagent::common::util::UniqueFd file_;
  MountTable table_{proc_.Path(), [](int) { return true; }};  // each question reads it anew
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zagent::fuzz::SilenceLog();
  static List list;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  MountTable& table = list.Write(text);

  std::vector<Line> lines;
  std::set<std::string> paths = {"/", "/srv"};
  for (const std::string& one : Split(text, '\n')) {
    std::optional<Line> line = LineIn(one);
    if (!line) continue;
    if (IsNormal(line->point) && paths.size() < 64) {
      for (const std::string& prefix : PrefixesOf(line->point)) paths.insert(prefix);
      paths.insert(line->point == "/" ? "/file" : line->point + "/file");
    }
    lines.push_back(std::move(*line));
  }
  const Tree tree(lines);
  for (const std::string& path : paths) {
    const std::optional<Mount> found = table.Find(path);
    if (tree.IsSound()) {
      if (found != tree.Walk(path)) std::abort();
    } else if (found && std::none_of(lines.begin(), lines.end(), [&](const Line& l) { return l.mount == *found; })) {
      std::abort();
    }
  }
  return 0;
}
