#include "tools/reference-receiver/AgentKeys.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "common/src/util/Cleanse.h"
#include "common/src/util/Concealment.h"
#include "common/src/util/ErrnoText.h"
#include "common/src/util/UniqueFd.h"

namespace zagent::tools {
namespace {

using common::util::ErrnoText;
using common::util::UniqueFd;

constexpr unsigned char kConcealingByte = 0x5a;
constexpr std::size_t kMaxIdSize = 64;
constexpr std::size_t kMaxActivationSize = 255;
constexpr const char* kBlanks = " \t\r";

bool IsId(std::string_view text) {
  return text.size() <= kMaxIdSize && std::all_of(text.begin(), text.end(), [](char c) {
           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
         });
}

bool IsActivation(std::string_view text) {
  return text.size() <= kMaxActivationSize &&
         std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c <= '~'; });
}

std::vector<std::string_view> WordsOf(std::string_view line) {
  std::vector<std::string_view> words;
  while (true) {
    const std::size_t begin = line.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) return words;
    const std::size_t end = std::min(line.find_first_of(kBlanks, begin), line.size());
    words.push_back(line.substr(begin, end - begin));
    line.remove_prefix(end);
  }
}

// Which state of a file was read.
std::array<std::int64_t, 7> IdentityOf(const struct stat& file) {
  return {static_cast<std::int64_t>(file.st_dev),
          static_cast<std::int64_t>(file.st_ino),
          file.st_size,
          file.st_mtim.tv_sec,
          file.st_mtim.tv_nsec,
          file.st_ctim.tv_sec,
          file.st_ctim.tv_nsec};
}

}  // namespace

struct AgentKeys::FileState {
  std::array<std::int64_t, 7> identity{};  // all 0: no such file
};

// All texts stand in one buffer, in the order of the agents' ids: some 140 bytes an agent.
class AgentKeys::Table {
 public:
  static std::shared_ptr<const Table> Parse(std::string_view text) {
    std::vector<Line> lines;
    std::size_t number = 0;
    while (!text.empty()) {
      const std::size_t end = std::min(text.find('\n'), text.size());
      ++number;
      const std::vector<std::string_view> words = WordsOf(text.substr(0, end));
      text.remove_prefix(std::min(end + 1, text.size()));
      if (words.empty() || words.front().front() == '#') continue;
      const std::string place = "line " + std::to_string(number) + ": ";
      if (words.size() != 3) throw std::runtime_error(place + "not a customer id, an agent id and an activation id");
      if (!IsId(words[0]) || !IsId(words[1])) throw std::runtime_error(place + "an id has other characters or is long");
      if (!IsActivation(words[2])) throw std::runtime_error(place + "no activation id");
      lines.push_back({words[0], words[1], words[2], number});
    }
    std::sort(lines.begin(), lines.end(), [](const Line& a, const Line& b) { return a.agent < b.agent; });
    const auto twice =
        std::adjacent_find(lines.begin(), lines.end(), [](const Line& a, const Line& b) { return a.agent == b.agent; });
    if (twice != lines.end()) {
      throw std::runtime_error("line " + std::to_string(std::max(twice->number, (twice + 1)->number)) +
                               ": the agent id of line " +
                               std::to_string(std::min(twice->number, (twice + 1)->number)));
    }
    return std::make_shared<const Table>(lines);
  }

  [[nodiscard]] std::size_t Count() const { return entries_.size(); }

  [[nodiscard]] std::optional<Agent> Find(std::string_view agent) const {
    const auto found =
        std::lower_bound(entries_.begin(), entries_.end(), agent,
                         [this](const Entry& entry, std::string_view id) { return AgentOf(entry) < id; });
    if (found == entries_.end() || AgentOf(*found) != agent) return std::nullopt;
    const std::size_t activation = found->offset + found->customer + found->agent;
    return Agent{{texts_.substr(found->offset, found->customer), std::string(agent)},
                 common::util::Reveal(texts_.substr(activation, found->activation), kConcealingByte)};
  }

 private:
  struct Line {
    std::string_view customer;
    std::string_view agent;
    std::string_view activation;
    std::size_t number;
  };
  struct Entry {
    std::uint32_t offset;
    std::uint8_t customer;  // sizes of what stands there one behind the other
    std::uint8_t agent;
    std::uint16_t activation;  // concealed
  };

 public:
  explicit Table(const std::vector<Line>& lines) {
    std::size_t size = 0;
    for (const Line& line : lines) {
      size += line.customer.size() + line.agent.size() + (line.activation.size() + 2) / 3 * 4;
    }
    texts_.reserve(size);
    entries_.reserve(lines.size());
    for (const Line& line : lines) {
      std::string activation(line.activation);
      const common::util::ScopedCleanse cleanse(activation);
      const std::string concealed = common::util::Conceal(activation, kConcealingByte);
      entries_.push_back({static_cast<std::uint32_t>(texts_.size()), static_cast<std::uint8_t>(line.customer.size()),
                          static_cast<std::uint8_t>(line.agent.size()), static_cast<std::uint16_t>(concealed.size())});
      texts_.append(line.customer).append(line.agent).append(concealed);
    }
  }

 private:
  [[nodiscard]] std::string_view AgentOf(const Entry& entry) const {
    return std::string_view(texts_).substr(entry.offset + entry.customer, entry.agent);
  }

  std::string texts_;
  std::vector<Entry> entries_;
};

namespace {

// The whole text of a file that is closed to others; `status` gets what was read. Throws std::runtime_error.
std::string ReadKeysFile(const std::string& file, struct stat& status) {
  const UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!fd || fstat(fd.Get(), &status) != 0) throw std::runtime_error(ErrnoText(errno));
  if (!S_ISREG(status.st_mode)) throw std::runtime_error("not a file");
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) throw std::runtime_error("open to others than its owner");
  if (static_cast<std::size_t>(status.st_size) > AgentKeys::kMaxFileSize) throw std::runtime_error("too large");
  std::string text(static_cast<std::size_t>(status.st_size), '\0');
  std::size_t size = 0;
  while (size < text.size()) {
    const ssize_t count = read(fd.Get(), text.data() + size, text.size() - size);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    size += static_cast<std::size_t>(count);
  }
  struct stat after {};
  if (size != text.size() || fstat(fd.Get(), &after) != 0 || IdentityOf(after) != IdentityOf(status)) {
    common::util::Cleanse(text);
    throw std::runtime_error("changes while it is read");
  }
  return text;
}

}  // namespace

AgentKeys::AgentKeys(const Agent& single, std::string file, std::function<void(const std::string&)> say,
                     common::util::Clock& clock)
    : file_(std::move(file)),
      say_(std::move(say)),
      clock_(clock),
      state_(std::make_unique<FileState>()),
      next_look_(clock.SteadyNow() + kLookInterval) {
  const bool has_none =
      single.identity.customer_id.empty() && single.identity.agent_id.empty() && single.activation_id.empty();
  if (!has_none || file_.empty()) {
    if (single.identity.customer_id.empty() || single.identity.agent_id.empty() || single.activation_id.empty()) {
      throw std::invalid_argument("Invalid customer id, agent id or activation id");
    }
    single_ = single.identity;
    concealed_activation_ = common::util::Conceal(single.activation_id, kConcealingByte);
  }
  if (file_.empty()) return;
  try {
    struct stat status {};
    std::string text = ReadKeysFile(file_, status);
    const common::util::ScopedCleanse cleanse(text);
    state_->identity = IdentityOf(status);
    table_ = Table::Parse(text);
  } catch (const std::exception& error) {
    throw std::runtime_error("Keys file " + file_ + ": " + error.what());
  }
}

AgentKeys::~AgentKeys() = default;

std::optional<AgentKeys::Agent> AgentKeys::Find(const std::string& key_id) const {
  if (single_ && single_->agent_id == key_id) {
    return Agent{*single_, common::util::Reveal(concealed_activation_, kConcealingByte)};
  }
  if (file_.empty()) return std::nullopt;
  LookAtFile();
  return Current()->Find(key_id);
}

std::size_t AgentKeys::Count() const {
  return file_.empty() ? 0 : Current()->Count();
}

std::shared_ptr<const AgentKeys::Table> AgentKeys::Current() const {
  const std::lock_guard lock(mutex_);
  return table_;
}

void AgentKeys::LookAtFile() const {
  const std::unique_lock look(look_mutex_, std::try_to_lock);
  if (!look || clock_.SteadyNow() < next_look_) return;
  next_look_ = clock_.SteadyNow() + kLookInterval;
  struct stat status {};
  const bool exists = stat(file_.c_str(), &status) == 0;
  const auto identity = exists ? IdentityOf(status) : std::array<std::int64_t, 7>{};
  if (identity == state_->identity) return;
  state_->identity = identity;
  try {
    std::string text = ReadKeysFile(file_, status);
    const common::util::ScopedCleanse cleanse(text);
    state_->identity = IdentityOf(status);
    std::shared_ptr<const Table> table = Table::Parse(text);
    const std::size_t count = table->Count();
    {
      const std::lock_guard lock(mutex_);
      table_ = std::move(table);
    }
    if (say_) say_("keys: " + std::to_string(count) + " agents");
  } catch (const std::exception& error) {
    if (say_) say_("error: keys file: " + std::string(error.what()) + "; the agents read before stay");
  }
}

}  // namespace zagent::tools
