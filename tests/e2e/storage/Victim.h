#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "common/src/util/UniqueFd.h"

namespace zagent::e2e {

// A program that is killed in the middle of its work, and what it said before. It never outlives the test.
class Victim {
 public:
  explicit Victim(std::vector<std::string> arguments);
  Victim(const Victim&) = delete;
  Victim& operator=(const Victim&) = delete;
  ~Victim();

  // Lets it work for so long, kills it with SIGKILL and gives its whole lines. Throws std::runtime_error when it had
  // ended by itself.
  std::vector<std::string> KillAfter(std::chrono::microseconds delay);

 private:
  pid_t pid_ = -1;
  common::util::UniqueFd output_;
};

}  // namespace zagent::e2e
