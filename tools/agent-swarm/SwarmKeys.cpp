#include "tools/agent-swarm/SwarmKeys.h"

#include <Poco/UUIDGenerator.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/UniqueFd.h"

namespace zagent::tools {
namespace {

constexpr std::size_t kCustomers = 10;

std::string Uuid() {
  return Poco::UUIDGenerator::defaultGenerator().createRandom().toString();
}

}  // namespace

void WriteSwarmKeys(const std::string& file, unsigned count) {
  std::vector<std::string> customers;
  for (std::size_t i = 0; i < kCustomers; ++i) customers.push_back(Uuid());
  std::string text;
  for (unsigned i = 0; i < count; ++i) text += customers[i % kCustomers] + " " + Uuid() + " " + Uuid() + "\n";
  unlink(file.c_str());
  const common::util::UniqueFd fd(open(file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (!fd || write(fd.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("Cannot write " + file + ": " + common::util::ErrnoText(errno));
  }
}

std::vector<SwarmAgent> ReadSwarmKeys(const std::string& file) {
  std::ifstream in(file);
  std::vector<SwarmAgent> agents;
  for (std::string line; std::getline(in, line);) {
    SwarmAgent agent;
    std::istringstream words(line);
    if (words >> agent.customer_id >> agent.agent_id >> agent.activation_id) agents.push_back(agent);
  }
  if (agents.empty()) throw std::runtime_error("No agents in " + file);
  return agents;
}

}  // namespace zagent::tools
