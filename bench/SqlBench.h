#pragma once

#include <string>

namespace zagent::bench {

// Time of list writes through SqlStorage over the time of the same statements through SQLite's C interface, one
// transaction a list, with the same journal, in two databases below `folder`. Prints one line for each of the two.
double MeasureSqlOverPlain(const std::string& folder);

}  // namespace zagent::bench
