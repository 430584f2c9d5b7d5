#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace zagent::tools {

// A batch of indicators of compromise, decoded. Its texts are as they came.
struct IocBatch {
  std::string customer_id;
  std::string agent_id;
  std::uint64_t sequence_number = 0;
  // One line for the batch:
  //   batch <sequence number> events=<n> host=<name> boot=<seconds> quarantine=<yes|no> id=<UUID>
  // and one for each event, first directories, then files, connections and processes:
  //   ioc <action> directory <path> actor=<path> pid=<n> user=<name>
  //   ioc <action> file <path, or "old -> new"> actor=<path> pid=<n> user=<name> size=<n> type=<type> sha256=<digest>
  //   ioc <action> network <address>:<port> actor=<path> pid=<n> user=<name>
  //   ioc <action> process <path> pid=<n> user=<name> parent=<n> actor=<path> status=<status> arguments=<text>
  //   ioc <action> module <name> actor=<path> pid=<n> user=<name>
  // What there is not is "-"; blanks are \x20 but for those of the arguments, which end their line.
  std::vector<std::string> lines;

  // Nothing for what is no IoCEvent with an agent and a sequence number, or holds a text that is not UTF-8.
  static std::optional<IocBatch> Decode(const std::string& payload);
};

// Whether uploads to this path are batches of indicators of compromise:
// ".../linuxagentevent/v1/customer/<id>/agent/<id>".
bool IsIocTarget(const std::string& target);
// The same of this customer and agent.
bool IsIocTargetOf(const std::string& target, const std::string& customer_id, const std::string& agent_id);

// Follows the sequence numbers of each agent's batches, from the first that comes. Thread-safe. It knows as many agents
// as have sent one: only those with a good signature are to come here.
class SequenceNumbers {
 public:
  // What is to be said of a batch that is not the one behind the agent's last: "sequence gap: 8 to 9 missing before
  // 10", or "sequence back: 7 after 10", which a batch after a kill may have.
  std::optional<std::string> Note(std::uint64_t number, const std::string& agent_id = "");

 private:
  std::mutex mutex_;
  std::map<std::string, std::uint64_t> last_;
};

}  // namespace zagent::tools
