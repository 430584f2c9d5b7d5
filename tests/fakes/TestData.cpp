#include "tests/fakes/TestData.h"

#include <fstream>
#include <stdexcept>

namespace zagent::fakes {

std::filesystem::path SourceTree() {
  return OSTREL_SOURCE_TREE;
}

std::string RecordsOfStep(const std::string& recording, const std::string& step) {
  std::ifstream in(TestData(recording));
  std::string records;
  bool within = false;
  for (std::string line; std::getline(in, line);) {
    if (line.find("type=TEST") == 0) {
      if (within) break;
      within = line.find("step: " + step + " exe=") != std::string::npos;
    } else if (within) {
      records += line + "\n";
    }
  }
  if (records.empty()) throw std::runtime_error(recording + " has no step '" + step + "'");
  return records;
}

}  // namespace zagent::fakes
