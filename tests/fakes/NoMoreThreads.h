#pragma once

#include <pthread.h>

#include <cstddef>

namespace zagent::fakes {

// Makes every new thread fail while it lives: no address space holds a stack of this size.
class NoMoreThreads {
 public:
  NoMoreThreads() {
    pthread_getattr_default_np(&old_);
    pthread_attr_t huge;
    pthread_getattr_default_np(&huge);
    pthread_attr_setstacksize(&huge, std::size_t{1} << 46);
    pthread_setattr_default_np(&huge);
    pthread_attr_destroy(&huge);
  }
  NoMoreThreads(const NoMoreThreads&) = delete;
  NoMoreThreads& operator=(const NoMoreThreads&) = delete;
  ~NoMoreThreads() {
    pthread_setattr_default_np(&old_);
    pthread_attr_destroy(&old_);
  }

 private:
  pthread_attr_t old_{};
};

}  // namespace zagent::fakes
