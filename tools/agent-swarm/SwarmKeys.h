#pragma once

#include <string>
#include <vector>

namespace zagent::tools {

struct SwarmAgent {
  std::string customer_id;
  std::string agent_id;
  std::string activation_id;
};

// Writes a keys file of the receiver, of mode 0600, with so many new agents of ten customers. Throws
// std::runtime_error.
void WriteSwarmKeys(const std::string& file, unsigned count);
// The agents of such a file. Throws std::runtime_error.
std::vector<SwarmAgent> ReadSwarmKeys(const std::string& file);

}  // namespace zagent::tools
