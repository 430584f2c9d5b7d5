#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "common/src/util/Clock.h"
#include "tools/reference-receiver/UploadSink.h"

namespace zagent::tools {

// Whose uploads are accepted: one agent by its ids, those of a file, or both. Thread-safe.
//
// The file has a line an agent, its customer id, agent id and activation id between blanks; empty lines and those that
// begin with '#' say nothing. Ids are of letters, digits, '-' and '_', at most 64, an activation id of any printable
// ASCII characters but blanks, at most 255. An agent id stands there once: it is the key id of the agent's requests.
// Activation ids are secrets: the file must be closed to all but its owner (mode 0600).
//
// The file is looked at again by a look-up, at most once a second. When it has changed it is read as a whole, and one
// that is broken changes nothing: the agents read before stay, and `say` gets one line for that state of the file.
// Replace it by a rename: one that is written in place can be seen half.
class AgentKeys {
 public:
  static constexpr std::size_t kMaxFileSize = 256UL << 20U;
  static constexpr std::chrono::seconds kLookInterval{1};

  struct Agent {
    AgentIdentity identity;
    std::string activation_id;  // whoever has it cleanses it
  };

  // `single`: empty ids for none. Throws std::invalid_argument when there is nobody at all, or an id is empty, and
  // std::runtime_error when the file cannot be read or is broken.
  AgentKeys(const Agent& single, std::string file, std::function<void(const std::string& line)> say = {},
            common::util::Clock& clock = common::util::Clock::Real());
  AgentKeys(const AgentKeys&) = delete;
  AgentKeys& operator=(const AgentKeys&) = delete;
  ~AgentKeys();

  // The agent with this key id.
  [[nodiscard]] std::optional<Agent> Find(const std::string& key_id) const;
  // The agent that was given by its ids.
  [[nodiscard]] const std::optional<AgentIdentity>& Single() const { return single_; }
  // Of the file.
  [[nodiscard]] std::size_t Count() const;

 private:
  class Table;
  struct FileState;

  void LookAtFile() const;
  [[nodiscard]] std::shared_ptr<const Table> Current() const;

  std::optional<AgentIdentity> single_;
  std::string concealed_activation_;  // of the single agent
  const std::string file_;
  const std::function<void(const std::string&)> say_;
  common::util::Clock& clock_;
  mutable std::mutex look_mutex_;  // whoever looks at the file; nobody waits for it
  mutable std::unique_ptr<FileState> state_;
  mutable common::util::Clock::SteadyTime next_look_;
  mutable std::mutex mutex_;  // guards the pointer only
  mutable std::shared_ptr<const Table> table_;
};

}  // namespace zagent::tools
