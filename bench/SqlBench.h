#pragma once

#include <string>

namespace zagent::bench {

// Time of list writes through SqlStorage over the time of the same statements through SQLite's C interface, one
// transaction a list, with the same journal, in two databases below `folder`: the median over pairs of lists. Prints
// one line for each of the two. In memory (/dev/shm) it tells what the class costs; on a disk that others use, mostly
// what they do.
double MeasureSqlOverPlain(const std::string& folder);

}  // namespace zagent::bench
