#include "bench/Callgrind.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>

namespace zagent::bench {

double CountInstructions(const std::string& command, const std::string& function, const std::string& name) {
  const std::string file = "callgrind." + name;
  const std::string line = "valgrind --tool=callgrind --vgdb=no --collect-atstart=no --toggle-collect=" + function +
                           " --log-file=" + file + ".log --callgrind-out-file=" + file + ".out " + command;
  if (std::system(line.c_str()) != 0) throw std::runtime_error("callgrind has failed, see " + file + ".log");
  std::ifstream log(file + ".log");
  const std::string report{std::istreambuf_iterator<char>(log), {}};
  constexpr std::string_view kCount = "Collected : ";
  const std::size_t at = report.find(kCount);
  if (at == std::string::npos) throw std::runtime_error("no count in " + file + ".log");
  return std::stod(report.substr(at + kCount.size()));
}

}  // namespace zagent::bench
