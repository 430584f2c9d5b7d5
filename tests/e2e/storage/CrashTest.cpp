// A process is killed at random moments while it writes. What it had said to be safe is there afterwards: whole, once,
// in order. OSTREL_CRASH_ROUNDS is the number of deaths (scripts/soak crash: 1,000).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "common/src/storage/SpoolStorage.h"
#include "tests/e2e/storage/NumberedItems.h"
#include "tests/e2e/storage/Victim.h"
#include "tests/fakes/FakeDataFormatter.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::e2e {
namespace {

using common::Scheduler;
using common::SpoolStorage;
using common::StorageCode;

std::uint64_t FromEnvironment(const char* name, std::uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

// What became of the items of a spool's files.
class Ledger {
 public:
  // An item was said to be safe.
  void Owe(std::uint64_t first, std::uint64_t last) {
    for (std::uint64_t number = first; number <= last; ++number) owed_.insert(number);
  }

  // A file came out of the spool. A torn one may hold only items that were never said to be safe: all of its items
  // would have to be there, so it must lie behind everything owed of its round.
  void Receive(const common::Bytes& file) {
    const auto numbers = ParseItems(file);
    if (!numbers) {
      ++torn_;
      return;
    }
    for (const std::uint64_t number : *numbers) {
      EXPECT_GT(number, newest_) << "an item came twice or out of order";
      newest_ = number;
      owed_.erase(number);
    }
  }

  void ExpectNothingOwed() const {
    EXPECT_TRUE(owed_.empty()) << owed_.size() << " items are lost, the first of them " << *owed_.begin();
  }
  [[nodiscard]] std::uint64_t Torn() const { return torn_; }

 private:
  std::set<std::uint64_t> owed_;
  std::uint64_t newest_ = 0;
  std::uint64_t torn_ = 0;
};

// Reads the spool to its end.
void ReadAll(const std::string& folder, Ledger& ledger) {
  Scheduler scheduler;
  scheduler.Start();
  SpoolStorage spool(scheduler, folder, "items", std::make_unique<fakes::FakeDataFormatter>(), {64, 1, 4});
  for (;;) {
    auto file = spool.Read();
    if (file->code != StorageCode::Success) {
      EXPECT_EQ(file->code, StorageCode::NotFound);
      return;
    }
    ledger.Receive(file->data);
    ASSERT_TRUE(spool.Delete(std::move(file)));
  }
}

TEST(CrashTest, ASpoolKeepsWhatItSaidToBeSafeThroughEveryDeath) {
  constexpr std::uint64_t kRoundNumbers = 1'000'000;
  // Microseconds; the first third is the victim's own start.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr std::uint64_t kLongestLife = 600'000;
#else
  constexpr std::uint64_t kLongestLife = 60'000;
#endif
  const std::uint64_t rounds = FromEnvironment("OSTREL_CRASH_ROUNDS", 50);
  const std::uint64_t seed = FromEnvironment("OSTREL_CRASH_SEED", std::random_device()());
  SCOPED_TRACE("OSTREL_CRASH_SEED=" + std::to_string(seed));
  std::mt19937_64 random(seed);
  const fakes::TempFolder folder;
  Ledger ledger;
  std::uint64_t safe_items = 0;
  std::uint64_t spoke = 0;
  for (std::uint64_t round = 1; round <= rounds && !::testing::Test::HasFailure(); ++round) {
    const std::uint64_t first = round * kRoundNumbers;
    Victim victim({OSTREL_SPOOL_VICTIM, folder.Path(), std::to_string(first)});
    const auto lines = victim.KillAfter(std::chrono::microseconds(random() % kLongestLife));
    if (!lines.empty()) {
      const std::uint64_t last = std::stoull(lines.back());
      ledger.Owe(first, last);
      safe_items += last - first + 1;
      ++spoke;
    }
    // Several lives may lie between two looks.
    if (random() % 2 == 0 || round == rounds) {
      ReadAll(folder.Path(), ledger);
      ledger.ExpectNothingOwed();
    }
  }
  EXPECT_GE(spoke, rounds / 5) << "most of the victims died before they wrote anything";
  std::cout << rounds << " deaths, " << safe_items << " safe items in " << spoke << " of them, " << ledger.Torn()
            << " torn files without any\n";
}

}  // namespace
}  // namespace zagent::e2e
