#pragma once

#include <string>
#include <vector>

namespace zagent::common::util {

// Overwrites every byte that the text's buffer holds, in a way the compiler may not drop, and leaves it empty.
void Cleanse(std::string& text);
void Cleanse(std::vector<unsigned char>& bytes);

// Cleanses a secret at the end of a scope, on every way out of it.
class ScopedCleanse {
 public:
  explicit ScopedCleanse(std::string& secret) : secret_(secret) {}
  ScopedCleanse(const ScopedCleanse&) = delete;
  ScopedCleanse& operator=(const ScopedCleanse&) = delete;
  ~ScopedCleanse() { Cleanse(secret_); }

 private:
  std::string& secret_;
};

}  // namespace zagent::common::util
