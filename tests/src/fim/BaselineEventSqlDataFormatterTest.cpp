#include "src/fim/BaselineEventSqlDataFormatter.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace zagent::fim::internal {
namespace {

using Statements = common::SqlDataFormatter::Statements;

class BaselineEventSqlDataFormatterTest : public testing::Test {
 protected:
  common::Bytes Row(const std::string& path, const std::string& status) {
    formatter_.Start();
    formatter_.Add(path);
    formatter_.Add(status);
    return formatter_.Finish();
  }
  std::string ErrorOfInsert(const common::Bytes& row) {
    try {
      (void)formatter_.Insert("BaselineEvents", "", row);
      return "";
    } catch (const std::out_of_range& error) {
      return error.what();
    }
  }

  BaselineEventSqlDataFormatter formatter_;
};

TEST_F(BaselineEventSqlDataFormatterTest, OneTableHasAColumnForThePathAndOneForTheOutcome) {
  EXPECT_EQ(formatter_.Create(),
            (Statements{"CREATE TABLE [BaselineEvents] ([FilePath] TEXT PRIMARY KEY, [ContentStatus] TEXT)"}));
  EXPECT_EQ(formatter_.GetVersion(), "");
  EXPECT_TRUE(formatter_.Migrate(7).empty());
}

TEST_F(BaselineEventSqlDataFormatterTest, WritesReadsAndDeletesByPath) {
  EXPECT_EQ(formatter_.Insert("BaselineEvents", "/srv/a", Row("/srv/a", "READ_SUCCESSFUL")),
            "INSERT or REPLACE INTO BaselineEvents VALUES ('/srv/a', 'READ_SUCCESSFUL')");
  EXPECT_EQ(formatter_.Select("BaselineEvents", "/srv/a"), "SELECT * from BaselineEvents WHERE FilePath = '/srv/a';");
  EXPECT_EQ(formatter_.Select("BaselineEvents", ""), "SELECT * from BaselineEvents;");
  EXPECT_EQ(formatter_.Delete("BaselineEvents", "/srv/a"), "DELETE from BaselineEvents WHERE FilePath = '/srv/a';");
}

TEST_F(BaselineEventSqlDataFormatterTest, QuotesInNamesAreDoubled) {
  EXPECT_EQ(formatter_.Insert("BaselineEvents", "", Row("/srv/o'brien\n", "x'y")),
            "INSERT or REPLACE INTO BaselineEvents VALUES ('/srv/o''brien\n', 'x''y')");
  EXPECT_EQ(formatter_.Select("BaselineEvents", "a'b"), "SELECT * from BaselineEvents WHERE FilePath = 'a''b';");
  EXPECT_EQ(formatter_.Delete("BaselineEvents", "a'b"), "DELETE from BaselineEvents WHERE FilePath = 'a''b';");
}

TEST_F(BaselineEventSqlDataFormatterTest, EverythingGoesOrNothing) {
  EXPECT_EQ(formatter_.Clear(), (Statements{"DELETE from BaselineEvents;"}));
  try {
    (void)formatter_.Clear("BaselineEvents");
    FAIL() << "a table was cleared";
  } catch (const common::SqlDataFormatterException& error) {
    EXPECT_STREQ(error.what(), "Clear(tablename) is not implemented for BaselineEventSqlDataFormatter.");
  }
}

TEST_F(BaselineEventSqlDataFormatterTest, ARowThatIsCutShortIsRefused) {
  common::Bytes row = Row("/srv/a", "READ_SUCCESSFUL");
  row.pop_back();
  EXPECT_EQ(ErrorOfInsert(row), "Serializer: Insufficient bytes to get string");
  row.resize(4);
  EXPECT_EQ(ErrorOfInsert(row), "Serializer: Insufficient bytes to get data");
}

}  // namespace
}  // namespace zagent::fim::internal
