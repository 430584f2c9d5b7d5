// What a database keeps of a process that is killed at any moment.
//
//   sql_crash ROUNDS [SEED]
//   sql_crash --write FOLDER LAST   only writes, up to list LAST, and ends in whatever state the database is then
//   sql_crash --check FOLDER LAST   only looks: lists up to LAST were reported
//
// In each round a child opens the database, writes numbered lists of rows and prints the number of each list that a
// callback reported as written. It is killed (SIGKILL) at a random moment: while it opens, creates or vacuums the
// database, or within a transaction. Then every list must be there whole or not at all, none of those printed may be
// missing, and none may stand behind a missing one. The next round goes on with the same file; every tenth begins anew.
//
// A list whose number is divisible by three overwrites one set of rows, the others add rows, and now and then a list of
// statements removes the oldest. The last line of the output has the figures as key=value pairs.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlStorageFactory.h"
#include "common/src/tasks/Scheduler.h"
#include "common/src/util/UniqueFd.h"
#include "tests/fakes/FakeSqlFormatter.h"
#include "tests/fakes/TempFolder.h"

namespace {

using zagent::common::Bytes;
using zagent::common::Scheduler;
using zagent::common::Serializer;
using zagent::common::SqlRowIterator;
using zagent::common::SqlStorage;
using zagent::common::util::UniqueFd;

constexpr const char* kName = "Crash.db";
constexpr std::int64_t kMaxInFlight = 8;
constexpr std::int64_t kKept = 60;  // lists, when the oldest are removed
constexpr std::int64_t kFreshEvery = 10;

// What list `number` consists of.
bool Overwrites(std::int64_t number) {
  return number % 3 == 0;
}
const char* TableOf(std::int64_t number) {
  return Overwrites(number) ? "Others" : "Items";
}
std::int64_t SizeOf(std::int64_t number) {
  return Overwrites(number) ? 12 : 1 + number * 7 % 40;
}
std::string KeyOf(std::int64_t number, std::int64_t index) {
  return (Overwrites(number) ? "set" : std::to_string(number)) + "/" + std::to_string(index);
}
std::string TextOf(std::int64_t number, std::int64_t index) {
  return std::string(static_cast<std::size_t>((number * 31 + index) % 900), static_cast<char>('a' + number % 26));
}

std::unique_ptr<SqlStorage> Open(const std::string& folder, Scheduler* scheduler) {
  const auto make_formatter = [] {
    return std::make_unique<zagent::fakes::FakeSqlFormatter>(zagent::fakes::FakeSqlFormatter::Schema{1});
  };
  return zagent::common::OpenSqlStorage(folder, kName, make_formatter, scheduler, SqlStorage::Caching::On);
}

std::int64_t Number(SqlStorage& storage, const std::string& query) {
  const Bytes row = storage.Query(query).Next();
  return Serializer(row).GetInteger();
}

std::int64_t LastNumber(SqlStorage& storage) {
  return Number(storage,
                "SELECT ifnull(max(Number), 0) from (SELECT Number from Items UNION SELECT Number from Others)");
}

// The child: never ends by itself.

class Writer {
 public:
  explicit Writer(const std::string& folder) {
    scheduler_.Start();
    storage_ = Open(folder, &scheduler_);
  }
  // With the last list the process ends.
  [[noreturn]] void Run(std::int64_t last = INT64_MAX) {
    for (std::int64_t number = LastNumber(*storage_) + 1; number <= last; ++number) {
      AwaitRoom();
      SqlStorage::Rows rows;
      for (std::int64_t i = 0; i < SizeOf(number); ++i) {
        rows.emplace_back(KeyOf(number, i), storage_->MakeRow(KeyOf(number, i), number, TextOf(number, i)));
      }
      storage_->WriteAsync(TableOf(number), rows,
                           [this, number](const SqlStorage::Result& result) { Report(number, result); });
      if (number % kKept == 0) {
        const std::string limit = std::to_string(number - kKept);
        storage_->ExecuteAll({"DELETE from Items WHERE Number < " + limit + " AND Number % 2 = 0",
                              "DELETE from Items WHERE Number < " + limit});
      }
    }
    storage_->Query("SELECT 1");  // what was written so far has been reported
    std::_Exit(0);
  }

 private:
  void AwaitRoom() {
    std::unique_lock lock(mutex_);
    room_.wait(lock, [this] { return in_flight_ < kMaxInFlight; });
    ++in_flight_;
  }
  void Report(std::int64_t number, const SqlStorage::Result& result) {
    if (!result.succeeded) {
      std::cerr << "list " << number << " failed: " << result.error << "\n";
      std::_Exit(1);
    }
    const std::string line = std::to_string(number) + "\n";
    if (write(STDOUT_FILENO, line.data(), line.size()) != static_cast<ssize_t>(line.size())) std::_Exit(1);
    const std::lock_guard lock(mutex_);
    --in_flight_;
    room_.notify_one();
  }

  Scheduler scheduler_;
  std::unique_ptr<SqlStorage> storage_;
  std::mutex mutex_;
  std::condition_variable room_;
  std::int64_t in_flight_ = 0;
};

// The parent.

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what);
}

struct Child {
  pid_t pid = -1;
  UniqueFd output;
};

Child Spawn(const std::string& folder) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) Fail("pipe2 failed");
  Child child{fork(), UniqueFd(ends[0])};
  if (child.pid < 0) Fail("fork failed");
  if (child.pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(ends[1], STDOUT_FILENO);
    execl("/proc/self/exe", "sql_crash", "--child", folder.c_str(), static_cast<char*>(nullptr));
    std::_Exit(127);
  }
  close(ends[1]);
  return child;
}

// What the child printed, after its end.
std::int64_t LastPrinted(const Child& child, std::string text) {
  char buffer[4096];
  for (ssize_t count = 0; (count = read(child.output.Get(), buffer, sizeof(buffer))) > 0;) {
    text.append(buffer, static_cast<std::size_t>(count));
  }
  std::istringstream lines(text);
  std::int64_t last = 0;
  for (std::int64_t number = 0; lines >> number;) {
    if (last != 0 && number != last + 1) Fail("the callbacks came out of order");
    last = number;
  }
  return last;
}

// Runs a child for a random while and returns the last number that it printed, 0 for none.
std::int64_t RunAndKill(const std::string& folder, std::mt19937_64& random) {
  const Child child = Spawn(folder);
  std::string first;
  // Every other one is killed while it starts.
  if (random() % 2 == 0) {
    char byte = 0;
    if (read(child.output.Get(), &byte, 1) == 1) first = byte;
  }
  std::this_thread::sleep_for(std::chrono::microseconds(random() % 40'000));
  kill(child.pid, SIGKILL);
  int status = 0;
  waitpid(child.pid, &status, 0);
  if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) Fail("the child ended by itself");
  return LastPrinted(child, first);
}

void CheckRow(const Bytes& row, std::int64_t number, std::int64_t index) {
  Serializer columns(row);
  if (columns.GetString() != KeyOf(number, index)) Fail("list " + std::to_string(number) + " lacks a row");
  if (columns.GetInteger() != number) Fail("list " + std::to_string(number) + " has a row of another list");
  if (columns.GetString() != TextOf(number, index)) Fail("list " + std::to_string(number) + " has a torn row");
}

std::int64_t CheckList(SqlStorage& storage, std::int64_t number) {
  SqlRowIterator rows = storage.Query("SELECT * from " + std::string(TableOf(number)) +
                                      " WHERE Number = " + std::to_string(number) + " ORDER BY rowid");
  std::int64_t index = 0;
  for (Bytes row = rows.Next(); !row.empty(); row = rows.Next()) CheckRow(row, number, index++);
  if (index != 0 && index != SizeOf(number)) Fail("list " + std::to_string(number) + " is torn");
  return index;
}

// Returns the number of the last list. Not more than `ahead` lists are there that nobody reported.
std::int64_t Check(const std::string& folder, std::int64_t printed, std::int64_t before,
                   std::int64_t ahead = kMaxInFlight) {
  const auto storage = Open(folder, nullptr);
  if (std::filesystem::exists(folder + "/" + kName + ".damaged")) Fail("the database was damaged");
  const std::int64_t last = LastNumber(*storage);
  if (last < std::max(printed, before)) Fail("list " + std::to_string(printed) + " was reported and is gone");
  const std::int64_t known = std::max(printed, before);
  if (last - known > ahead) Fail("more lists are there than were written");

  const std::int64_t first = Number(*storage, "SELECT ifnull(min(Number), 0) from Items");
  // The oldest are gone up to a number that was given, and nothing but them.
  if (first != 0 && first % kKept != 1) Fail("a removal was torn");
  for (std::int64_t number = std::max<std::int64_t>(first, 1); number <= last; ++number) {
    if (!Overwrites(number) && CheckList(*storage, number) == 0) Fail("list " + std::to_string(number) + " is missing");
  }
  const std::int64_t set = last - last % 3;
  if (set > 0 && CheckList(*storage, set) == 0) Fail("the overwritten rows are not those of the last list");
  if (Number(*storage, "SELECT count(*) from Others") != (set > 0 ? SizeOf(set) : 0)) Fail("two lists are mixed");
  return last;
}

int CheckOnly(const std::string& folder, std::int64_t printed) {
  try {
    const std::int64_t last = Check(folder, printed, 0, INT64_MAX);
    std::cout << "lists 1 to " << last << ", reported were " << printed << "\n";
    return 0;
  } catch (const std::exception& error) {
    std::cout << "sql_crash: " << error.what() << "\n";
    return 1;
  }
}

bool HasHotJournal(const std::string& folder) {
  std::ifstream journal(folder + "/" + kName + "-journal", std::ios::binary);
  char first = 0;
  return journal.get(first) && first != 0;
}

int Crash(long rounds, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  const zagent::fakes::TempFolder folder;
  std::int64_t last = 0;
  std::int64_t lists = 0;
  std::int64_t torn = 0;
  for (long round = 0; round < rounds; ++round) {
    if (round % kFreshEvery == 0) {
      for (const auto& file : std::filesystem::directory_iterator(folder.Path())) std::filesystem::remove(file.path());
      last = 0;
    }
    try {
      const std::int64_t printed = RunAndKill(folder.Path(), random);
      torn += HasHotJournal(folder.Path()) ? 1 : 0;
      const std::int64_t before = last;
      last = Check(folder.Path(), printed, before);
      lists += last - before;
    } catch (const std::exception& error) {
      std::cout << "FAILED in round " << round << " of seed " << seed << ": " << error.what() << std::endl;
      return 1;
    }
  }
  std::cout << "rounds=" << rounds << " lists=" << lists << " killed_within_a_transaction=" << torn << " seed=" << seed
            << std::endl;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc >= 3 ? argv[1] : "";
  if (argc == 3 && mode == "--child") Writer(argv[2]).Run();
  if (argc == 4 && mode == "--write") Writer(argv[2]).Run(std::strtol(argv[3], nullptr, 10));
  if (argc == 4 && mode == "--check") return CheckOnly(argv[2], std::strtol(argv[3], nullptr, 10));
  const long rounds = argc >= 2 ? std::strtol(argv[1], nullptr, 10) : 0;
  if (rounds <= 0 || argc > 3) {
    std::cerr << "usage: sql_crash ROUNDS [SEED] | --write FOLDER LAST | --check FOLDER LAST\n";
    return 2;
  }
  return Crash(rounds, argc == 3 ? std::strtoull(argv[2], nullptr, 10) : std::random_device()());
}
