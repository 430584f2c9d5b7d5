#pragma once

#include <cstddef>
#include <string>

#include "common/src/util/Clock.h"

namespace zagent::audit::internal {

// Tells the log every five seconds how far a long series of kernel calls has come. The kernel takes its time for rules
// on folders, most of all to remove them, and whoever waits for the program shall see that it works.
class Progress {
 public:
  // "<what> n of <total> rules"
  Progress(common::util::Clock& clock, std::string what, std::size_t total);

  // One more is done.
  void Step();

 private:
  common::util::Clock& clock_;
  std::string what_;
  std::size_t total_;
  std::size_t done_ = 0;
  common::util::Clock::SteadyTime next_;
};

}  // namespace zagent::audit::internal
