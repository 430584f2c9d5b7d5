#pragma once

#include <string>

namespace zagent::bench {

// Runs a command (its words are not quoted) under callgrind and answers how many instructions in user space it has
// spent within the function of that name. Leaves "callgrind.NAME.out" and "callgrind.NAME.log" in the current folder.
// Throws std::runtime_error when that fails.
double CountInstructions(const std::string& command, const std::string& function, const std::string& name);

}  // namespace zagent::bench
