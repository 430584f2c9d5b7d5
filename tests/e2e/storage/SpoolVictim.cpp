// spool-victim FOLDER FIRST [LAST]: writes numbered items into the spool "items" of FOLDER and says on standard output,
// a line each, up to which number they are safe. Goes on until it is killed, or ends after LAST in whatever state the
// spool is then, as a killed one would.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <semaphore>
#include <string>

#include "common/src/storage/SpoolStorage.h"
#include "tests/e2e/storage/NumberedItems.h"
#include "tests/fakes/FakeDataFormatter.h"

namespace {

using zagent::common::Scheduler;
using zagent::common::SpoolStorage;
using zagent::common::StorageCode;
using zagent::common::StorageResult;

constexpr std::ptrdiff_t kInFlight = 64;

// What is printed is printed at once, whatever happens next.
void Say(std::uint64_t number) {
  const std::string line = std::to_string(number) + "\n";
  if (write(STDOUT_FILENO, line.data(), line.size()) != static_cast<ssize_t>(line.size())) _exit(3);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::cerr << "usage: spool-victim FOLDER FIRST [LAST]\n";
    return 2;
  }
  const std::uint64_t first = std::strtoull(argv[2], nullptr, 10);
  const std::uint64_t last = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : UINT64_MAX;
  std::counting_semaphore<kInFlight> room(kInFlight);
  Scheduler scheduler;
  scheduler.Start();
  SpoolStorage spool(scheduler, argv[1], "items", std::make_unique<zagent::fakes::FakeDataFormatter>(), {64, 1, 4});
  for (std::uint64_t number = first; number <= last; ++number) {
    room.acquire();
    const std::string item = zagent::e2e::MakeItem(number);
    spool.WriteAsync({item.begin(), item.end()}, [&room, number](std::unique_ptr<StorageResult> result) {
      if (result->code != StorageCode::Success) _exit(4);
      // The file holds what came before this item, which begins the next cache.
      if (!result->path.empty()) Say(number - 1);
      room.release();
    });
  }
  spool.Read();  // what was written so far has been answered
  _exit(0);
}
