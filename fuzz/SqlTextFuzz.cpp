// Feeds one text to a database: as the key and text of a row, which must come back as they went in, alone and with the
// schema untouched; and as the bytes of rows, which may say that they are cut short and nothing else.
#include <Poco/AutoPtr.h>
#include <Poco/Logger.h>
#include <Poco/NullChannel.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlConnection.h"
#include "tests/fakes/FakeSqlFormatter.h"

namespace {

namespace common = zagent::common;
namespace internal = zagent::common::internal;
using common::Bytes;
using common::SqlRowIterator;
using zagent::fakes::FakeSqlFormatter;

constexpr const char* kTable = "Items";

void SilenceLog() {
  Poco::Logger& logger = Poco::Logger::get("edr");
  logger.setChannel(Poco::AutoPtr<Poco::Channel>(new Poco::NullChannel));
  logger.setLevel(Poco::Message::PRIO_TRACE);
}

void Expect(bool holds) {
  if (!holds) std::abort();
}

std::string WithoutNul(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
  return text;
}

class Database {
 public:
  Database() {
    SilenceLog();
    FakeSqlFormatter schema;
    connection_.ExecuteAll(schema.Create());
    tables_ = Number("SELECT count(*) from sqlite_master");
  }

  void StoreText(const std::string& key, const std::string& text) {
    const Bytes row = Row(key, text);
    const Bytes kept = Row(WithoutNul(key), WithoutNul(text));
    // An exception from here on is a text that reached SQL.
    connection_.Execute(formatter_.Ask([&](auto& formatter) { return formatter.Insert(kTable, key, row); }));
    ExpectRows(key, kept);
    ExpectRows("", kept);
    connection_.Execute(formatter_.Ask([&](auto& formatter) { return formatter.Delete(kTable, key); }));
    ExpectEmpty();
  }

  // The bytes of a row from somewhere: the formatter reads it or refuses it.
  void StoreRow(const Bytes& row) {
    std::string insert;
    try {
      insert = formatter_.Ask([&](auto& formatter) { return formatter.Insert(kTable, "", row); });
    } catch (const std::out_of_range&) {
      return;
    }
    connection_.Execute(insert);
    connection_.Execute("DELETE from Items");
    ExpectEmpty();
  }

 private:
  Bytes Row(const std::string& key, const std::string& text) {
    return formatter_.BuildRow([&](common::SqlDataFormatter& row) {
      row.Add(key);
      row.Add(std::int64_t{1});
      row.Add(text);
    });
  }
  std::int64_t Number(const std::string& query) {
    const Bytes row = connection_.Query(query, formatter_).Next();
    return common::Serializer(row).GetInteger();
  }
  void ExpectRows(const std::string& key, const Bytes& only) {
    const std::string select = formatter_.Ask([&](auto& formatter) { return formatter.Select(kTable, key); });
    SqlRowIterator rows = connection_.Query(select, formatter_);
    Expect(rows.Next() == only);
    Expect(rows.Next().empty());
  }
  void ExpectEmpty() {
    Expect(Number("SELECT count(*) from Items") == 0);
    Expect(Number("SELECT count(*) from Others") == 0);
    Expect(Number("SELECT count(*) from sqlite_master") == tables_);
  }

  internal::SqlConnection connection_{":memory:", internal::SqlConnection::Mode::Create};
  internal::SqlSharedFormatter formatter_{std::make_unique<FakeSqlFormatter>()};
  std::int64_t tables_ = 0;
};

void WalkRows(const Bytes& bytes) {
  SqlRowIterator rows(std::make_shared<Bytes>(bytes));
  try {
    // A row of length 0 ends the walk like the end itself does.
    while (!rows.Next().empty()) {
    }
  } catch (const std::out_of_range&) {
    // A row that is cut short says so.
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Database database;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::size_t half = size / 2;
  database.StoreText(text.substr(0, half), text.substr(half));
  database.StoreText(text, text);
  database.StoreRow(Bytes(data, data + size));
  WalkRows(Bytes(data, data + size));
  return 0;
}
