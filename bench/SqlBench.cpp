#include "bench/SqlBench.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

#include "common/src/storage/SqlStorage.h"
#include "tests/fakes/FakeSqlFormatter.h"

namespace zagent::bench {
namespace {

using common::SqlStorage;
using fakes::FakeSqlFormatter;

constexpr int kLists = 300;
constexpr int kRowsInList = 100;
constexpr const char* kTable = "Items";

class PlainDatabase {
 public:
  explicit PlainDatabase(const std::string& path) {
    if (sqlite3_open(path.c_str(), &database_) != SQLITE_OK) throw std::runtime_error("cannot open " + path);
    Run("PRAGMA journal_mode = TRUNCATE");
    Run(FakeSqlFormatter::CreateTable(kTable));
  }
  PlainDatabase(const PlainDatabase&) = delete;
  PlainDatabase& operator=(const PlainDatabase&) = delete;
  ~PlainDatabase() { sqlite3_close(database_); }

  void WriteList(const std::vector<std::string>& statements) {
    Run("BEGIN");
    for (const std::string& text : statements) {
      sqlite3_stmt* statement = nullptr;
      sqlite3_prepare_v2(database_, text.c_str(), static_cast<int>(text.size()) + 1, &statement, nullptr);
      const int code = sqlite3_step(statement);
      sqlite3_finalize(statement);
      if (code != SQLITE_DONE) throw std::runtime_error(sqlite3_errmsg(database_));
    }
    Run("END");
  }

 private:
  void Run(const std::string& text) {
    if (sqlite3_exec(database_, text.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
      throw std::runtime_error(sqlite3_errmsg(database_));
    }
  }
  sqlite3* database_ = nullptr;
};

// Seconds that a piece of work takes.
double TimeOf(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

double MeasureSqlOverPlain(const std::string& folder) {
  SqlStorage storage(folder, "storage.db", std::make_unique<FakeSqlFormatter>(), nullptr, SqlStorage::Caching::Off);
  PlainDatabase plain(folder + "/plain.db");
  FakeSqlFormatter formatter;
  std::vector<double> storage_times;
  std::vector<double> plain_times;
  for (int list = 0; list < kLists; ++list) {
    SqlStorage::Rows rows;
    std::vector<std::string> statements;
    for (int row = 0; row < kRowsInList; ++row) {
      const std::string key = "/srv/watched/folder/file-" + std::to_string(list * kRowsInList + row);
      rows.emplace_back(key, storage.MakeRow(key, std::int64_t{row}, std::string(64, 'f')));
      statements.push_back(formatter.Insert(kTable, key, rows.back().second));
    }
    // In turns, so that what the disk is doing meanwhile meets both, and neither always comes behind the other.
    const bool plain_first = list % 2 == 0;
    if (plain_first) plain_times.push_back(TimeOf([&] { plain.WriteList(statements); }));
    storage_times.push_back(TimeOf([&] { storage.Write(kTable, rows); }));
    if (!plain_first) plain_times.push_back(TimeOf([&] { plain.WriteList(statements); }));
  }
  std::vector<double> relations;
  for (std::size_t i = 0; i < plain_times.size(); ++i) relations.push_back(storage_times[i] / plain_times[i]);
  std::printf("%-34s %10.0f lists/s\n", "SqlStorage, lists of 100 rows", 1 / Median(storage_times));
  std::printf("%-34s %10.0f lists/s\n", "the same statements, C interface", 1 / Median(plain_times));
  return Median(relations);
}

}  // namespace zagent::bench
