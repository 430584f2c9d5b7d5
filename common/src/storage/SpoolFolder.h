#pragma once

#include <string>

namespace zagent::common {

// The folder of a spool as a section of the configuration names it: a relative one lies in `working_directory`, which
// ends with "/". What is missing is made (mode 0700). Throws std::runtime_error "<owner>: Failed to create <folder>:
// <why>".
std::string PrepareSpoolFolder(const std::string& owner, std::string path, const std::string& working_directory);

}  // namespace zagent::common
