#include "common/src/util/ThreadName.h"

#include <pthread.h>

#include <array>
#include <cstring>

namespace zagent::common::util {

void NameThisThread(const char* name) noexcept {
  std::array<char, 16> fitting{};  // the kernel refuses a longer one
  std::strncpy(fitting.data(), name, fitting.size() - 1);
  pthread_setname_np(pthread_self(), fitting.data());
}

}  // namespace zagent::common::util
