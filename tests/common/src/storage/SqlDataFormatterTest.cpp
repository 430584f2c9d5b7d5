#include "common/src/storage/SqlDataFormatter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlRowIterator.h"
#include "tests/fakes/FakeSqlFormatter.h"
#include "tests/fakes/VirtualOrder.h"
#include "tests/fakes/WhatOf.h"

namespace zagent::common {
namespace {

using fakes::FakeSqlFormatter;
using fakes::VirtualSlot;
using fakes::WhatOf;
using Statements = SqlDataFormatter::Statements;

Bytes Cut(Bytes bytes, std::size_t size) {
  bytes.resize(size);
  return bytes;
}

TEST(SqlDataFormatterTest, ARowIsItsColumnsOneBehindTheOther) {
  FakeSqlFormatter formatter;
  formatter.Start();
  formatter.Add(std::int64_t{-2});
  formatter.Add(std::string("ab"));
  EXPECT_EQ(formatter.Finish(),
            (Bytes{0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 2, 0, 0, 0, 0, 0, 0, 0, 'a', 'b'}));
}

TEST(SqlDataFormatterTest, FinishLeavesNothingBehind) {
  FakeSqlFormatter formatter;
  formatter.Add(std::int64_t{1});
  EXPECT_EQ(formatter.Finish().size(), 8U);
  EXPECT_TRUE(formatter.Finish().empty());
  EXPECT_NO_THROW(formatter.Start());
}

TEST(SqlDataFormatterTest, AnUnfinishedRowStopsTheNextOne) {
  FakeSqlFormatter formatter;
  formatter.Start();
  formatter.Start();
  formatter.Add(std::int64_t{1});
  EXPECT_EQ(WhatOf<SqlDataFormatterException>([&] { formatter.Start(); }),
            "SqlDataFormatter::Start: A transaction is already in progress");
  static_assert(std::is_base_of_v<DataFormatterException, SqlDataFormatterException>);
}

TEST(SqlDataFormatterTest, ADatabaseHasNoVersionUnlessItsFormatterSaysSo) {
  FakeSqlFormatter formatter;
  EXPECT_EQ(formatter.SqlDataFormatter::GetVersion(), "");
}

TEST(SqlDataFormatterTest, AQuotedTextCannotLeaveItsQuotes) {
  EXPECT_EQ(SqlDataFormatter::Quote(""), "''");
  EXPECT_EQ(SqlDataFormatter::Quote("/etc/passwd"), "'/etc/passwd'");
  EXPECT_EQ(SqlDataFormatter::Quote("'; DROP TABLE [Items]; --"), "'''; DROP TABLE [Items]; --'");
  EXPECT_EQ(SqlDataFormatter::Quote("''"), "''''''");
  EXPECT_EQ(SqlDataFormatter::Quote(std::string("a\0'\0b", 5)), "'a''b'");
  EXPECT_EQ(SqlDataFormatter::Quote("line\nend\\ \"\xff"), "'line\nend\\ \"\xff'");
}

TEST(SqlDataFormatterTest, TheOperationsStandInTheirOrder) {
  using F = SqlDataFormatter;
  EXPECT_EQ(VirtualSlot(static_cast<void (F::*)(std::int64_t)>(&F::Add)), 2U);
  EXPECT_EQ(VirtualSlot(static_cast<void (F::*)(const std::string&)>(&F::Add)), 3U);
  EXPECT_EQ(VirtualSlot(static_cast<Statements (F::*)()>(&F::Clear)), 4U);
  EXPECT_EQ(VirtualSlot(static_cast<Statements (F::*)(const std::string&)>(&F::Clear)), 5U);
  EXPECT_EQ(VirtualSlot(&F::Create), 6U);
  EXPECT_EQ(VirtualSlot(&F::Delete), 7U);
  EXPECT_EQ(VirtualSlot(&F::Finish), 8U);
  EXPECT_EQ(VirtualSlot(&F::GetVersion), 9U);
  EXPECT_EQ(VirtualSlot(&F::Insert), 10U);
  EXPECT_EQ(VirtualSlot(&F::Select), 11U);
  EXPECT_EQ(VirtualSlot(&F::Start), 12U);
  EXPECT_EQ(VirtualSlot(&F::Migrate), 13U);
}

TEST(SerializerTest, ReadsTheColumnsBackInTheirOrder) {
  Bytes row;
  Serializer::Put(row, std::int64_t{-7});
  Serializer::Put(row, std::string_view("a\0b", 3));
  Serializer::Put(row, "");
  Serializer columns(row);
  EXPECT_EQ(columns.GetInteger(), -7);
  EXPECT_EQ(columns.GetString(), std::string("a\0b", 3));
  EXPECT_FALSE(columns.AtEnd());
  EXPECT_EQ(columns.GetString(), "");
  EXPECT_TRUE(columns.AtEnd());
}

TEST(SerializerTest, AColumnThatIsCutShortSaysWhichPartIsMissing) {
  Bytes row;
  Serializer::Put(row, "text");
  for (std::size_t size = 0; size < row.size(); ++size) {
    const Bytes cut = Cut(row, size);
    Serializer columns(cut);
    EXPECT_EQ(WhatOf<std::out_of_range>([&] { columns.GetString(); }),
              size < 8 ? "Serializer: Insufficient bytes to get data" : "Serializer: Insufficient bytes to get string");
    EXPECT_EQ(columns.AtEnd(), size == 0) << "half a column counts as read";
  }
  const Bytes seven(7);
  Serializer number(seven);
  EXPECT_EQ(WhatOf<std::out_of_range>([&] { number.GetInteger(); }), "Serializer: Insufficient bytes to get data");
}

TEST(SerializerTest, ALengthBeyondEverythingIsNoLength) {
  for (const std::int64_t length : {std::int64_t{-1}, INT64_MAX, INT64_MIN, std::int64_t{5}}) {
    Bytes row;
    Serializer::Put(row, length);
    row.insert(row.end(), {'t', 'e', 'x', 't'});
    Serializer columns(row);
    EXPECT_EQ(WhatOf<std::out_of_range>([&] { columns.GetString(); }), "Serializer: Insufficient bytes to get string");
  }
}

TEST(SqlRowIteratorTest, WalksTheRowsAndEndsWithAnEmptyOne) {
  SqlRowIterator rows;
  EXPECT_TRUE(rows.Next().empty());
  rows.Add({1, 2, 3});
  rows.Add({4});
  EXPECT_EQ(rows.Next(), (Bytes{1, 2, 3}));
  EXPECT_EQ(rows.Next(), (Bytes{4}));
  EXPECT_TRUE(rows.Next().empty());
  EXPECT_TRUE(rows.Next().empty());
}

TEST(SqlRowIteratorTest, CopiesShareTheBytesAndHaveACursorEach) {
  SqlRowIterator rows;
  rows.Add({1});
  rows.Add({2});
  rows.Next();
  SqlRowIterator copy = rows;
  EXPECT_EQ(copy.Next(), (Bytes{2}));
  EXPECT_EQ(rows.Next(), (Bytes{2}));
}

TEST(SqlRowIteratorTest, RefusesAnEmptyRow) {
  SqlRowIterator rows;
  EXPECT_EQ(WhatOf<std::runtime_error>([&] { rows.Add({}); }), "SqlRowIterator::Add: 'row' cannot be empty");
}

TEST(SqlRowIteratorTest, ARowThatIsCutShortSaysSo) {
  const Bytes whole{2, 0, 0, 0, 0, 0, 0, 0, 'a', 'b'};
  for (std::size_t size = 1; size < whole.size(); ++size) {
    SqlRowIterator rows(std::make_shared<Bytes>(Cut(whole, size)));
    EXPECT_EQ(WhatOf<std::out_of_range>([&] { rows.Next(); }),
              size < 8 ? "Serializer: Insufficient bytes to get data" : "SqlRowIterator::Next: Incomplete sql row");
  }
  SqlRowIterator endless(std::make_shared<Bytes>(Bytes(9, 0xff)));
  EXPECT_EQ(WhatOf<std::out_of_range>([&] { endless.Next(); }), "SqlRowIterator::Next: Incomplete sql row");
}

}  // namespace
}  // namespace zagent::common
