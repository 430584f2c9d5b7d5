#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlStorage.h"
#include "common/src/storage/SqlStorageFactory.h"
#include "tests/fakes/FakeSqlFormatter.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common {

// A database for one thread, opened, closed and damaged as its tests want it.
class SqlStorageFixture : public ::testing::Test {
 protected:
  SqlStorage& Open(fakes::FakeSqlFormatter::Schema schema = {},
                   SqlStorage::Caching caching = SqlStorage::Caching::Off) {
    storage_.reset();
    storage_ = std::make_unique<SqlStorage>(folder_.Path(), kName, std::make_unique<fakes::FakeSqlFormatter>(schema),
                                            nullptr, caching);
    return *storage_;
  }
  SqlStorage& OpenByFactory(const fakes::FakeSqlFormatter::Schema& schema = {}) {
    storage_.reset();
    storage_ = OpenSqlStorage(
        folder_.Path(), kName, [&] { return std::make_unique<fakes::FakeSqlFormatter>(schema); }, nullptr,
        SqlStorage::Caching::Off);
    return *storage_;
  }
  // A second connection to the same file.
  std::unique_ptr<SqlStorage> Neighbour() const {
    return std::make_unique<SqlStorage>(folder_.Path(), kName, std::make_unique<fakes::FakeSqlFormatter>(), nullptr,
                                        SqlStorage::Caching::Off);
  }
  Bytes Row(const std::string& key, std::int64_t number = 1, const std::string& text = "text") {
    return storage_->MakeRow(key, number, text);
  }
  void Write(const std::string& key, const std::string& text) { storage_->Write("Items", key, Row(key, 1, text)); }
  std::string TextOf(const std::string& key) {
    const Bytes row = storage_->Read("Items", key);
    if (row.empty()) return "(none)";
    Serializer columns(row);
    columns.GetString();
    columns.GetInteger();
    return columns.GetString();
  }
  std::int64_t Number(const std::string& query) {
    const Bytes row = storage_->Query(query).Next();
    return Serializer(row).GetInteger();
  }
  std::string JournalMode() {
    const Bytes row = storage_->Query("PRAGMA journal_mode").Next();
    return Serializer(row).GetString();
  }
  std::int64_t CountItems() { return Number("SELECT count(*) from Items"); }
  static unsigned ModeOf(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
  }
  // Fills rows over several pages, and then the last half of the file with what is no page.
  void Tear() {
    SqlStorage::Rows rows;
    for (int i = 0; i < 200; ++i) rows.emplace_back("", Row(std::to_string(i), i, std::string(200, 'x')));
    storage_->Write("Items", rows);
    storage_.reset();
    std::string bytes = folder_.Read(kName);
    for (std::size_t i = bytes.size() / 2; i < bytes.size(); ++i) bytes[i] = '\x5a';
    folder_.Write(kName, bytes);
  }
  bool Exists(const std::string& name) const { return std::filesystem::exists(folder_ / name); }

  static constexpr const char* kName = "Test.db";
  const fakes::LogCapture log_;
  const fakes::TempFolder folder_;
  std::unique_ptr<SqlStorage> storage_;
};

}  // namespace zagent::common
