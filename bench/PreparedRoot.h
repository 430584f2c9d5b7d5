#pragma once

#include <functional>
#include <string>
#include <vector>

namespace zagent::bench {

// This program, as it is called in a prepared root.
constexpr const char* kProgram = "/bench/program";
// The folder that the benchmark was started in: what lies here when a prepared root is gone, stays.
constexpr const char* kResults = "/bench/results";

// Runs `command` (an absolute path and its arguments) in a root folder of its own and returns what it wrote to standard
// output. Throws std::runtime_error when it cannot be run or does not end with code 0.
//
// The root is a tmpfs with empty /bin, /sbin, /srv and /tmp, an /etc that knows root alone, the machine's /usr and
// libraries, and a /proc in which the command is process 1: no process of the machine answers for one of a log.
// `furnish` runs in it before the command. The root is seen by the command alone and gone after it: it stands in
// namespaces of its own, and no mount of the machine is touched. Needs root or the right to make a user namespace.
std::string RunInPreparedRoot(const std::vector<std::string>& command, const std::function<void()>& furnish);

// Creates or replaces a file. Throws std::runtime_error on failure.
void WriteFile(const std::string& path, const std::string& text);

}  // namespace zagent::bench
