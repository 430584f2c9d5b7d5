#pragma once

#include <string>
#include <vector>

namespace zagent::tools {

// A file of tools/reference-receiver/page, built into the program.
struct PageFile {
  std::string name;
  std::string content;
};

const std::vector<PageFile>& PageFiles();

}  // namespace zagent::tools
