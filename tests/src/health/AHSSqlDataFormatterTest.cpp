#include "src/health/AHSSqlDataFormatter.h"

#include <gmock/gmock.h>

#include <stdexcept>

#include "common/src/storage/Serializer.h"
#include "src/health/AHSRecord.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::health {
namespace {

using common::Bytes;
using common::Serializer;
using common::SqlDataFormatterException;
using testing::ElementsAre;
using testing::IsEmpty;

class AHSSqlDataFormatterTest : public testing::Test {
 protected:
  static std::string Refusal(const std::function<void()>& action) {
    try {
      action();
    } catch (const SqlDataFormatterException& error) {
      return error.what();
    }
    return "none";
  }
  Bytes Row(const std::string& context, const std::string& fields) {
    formatter_.Start();
    formatter_.Add("2024-05-01T10:20:30Z");
    formatter_.Add(context);
    formatter_.Add(std::int64_t{4002});
    formatter_.Add(std::int64_t{0});
    formatter_.Add(fields);
    return formatter_.Finish();
  }

  AHSSqlDataFormatter formatter_{"/opt/agent", "EDRStatus.db"};
};

TEST_F(AHSSqlDataFormatterTest, MakesOneTableAndMarksItsVersion) {
  EXPECT_THAT(formatter_.Create(),
              ElementsAre("CREATE TABLE [AgentStatus] ([Time] TEXT, [ContextId] TEXT, [StatusCode] INTEGER, "
                          "[State] INTEGER, [AdditionalFields] TEXT)",
                          "PRAGMA user_version = 1"));
  EXPECT_EQ(formatter_.GetVersion(), "PRAGMA user_version");
}

TEST_F(AHSSqlDataFormatterTest, DropsTheTableOfALowerVersionOnly) {
  const fakes::LogCapture log;
  const auto statements = formatter_.Migrate(0);
  ASSERT_EQ(statements.size(), 3U);
  EXPECT_EQ(statements[0], "Drop table AgentStatus;");
  EXPECT_EQ(statements[1], formatter_.Create()[0]);
  EXPECT_EQ(statements[2], "PRAGMA user_version = 1");
  EXPECT_TRUE(log.Has("[EDR]: AHS: /opt/agent/EDRStatus.db is of version 0")) << log.All();
  EXPECT_THAT(formatter_.Migrate(1), IsEmpty());
  EXPECT_THAT(formatter_.Migrate(2), IsEmpty());
}

TEST_F(AHSSqlDataFormatterTest, QuotesWhatARowSays) {
  EXPECT_EQ(formatter_.Insert("AgentStatus", "", Row("/etc/it's.json", R"({"reason":"no"})")),
            "INSERT or REPLACE INTO AgentStatus VALUES ('2024-05-01T10:20:30Z', '/etc/it''s.json', 4002, 0, "
            R"('{"reason":"no"}'))");
}

TEST_F(AHSSqlDataFormatterTest, ReadsARowBackAsItWasBuilt) {
  const AHSRecord record = AHSRecord::FromRow(Row("FIM", "{}"));
  EXPECT_EQ(record.time, "2024-05-01T10:20:30Z");
  EXPECT_EQ(record.context_id, "FIM");
  EXPECT_EQ(record.status_code, 4002);
  EXPECT_EQ(record.state, 0);
  EXPECT_EQ(record.additional_fields, "{}");
}

TEST_F(AHSSqlDataFormatterTest, RefusesARowThatIsCutShort) {
  const auto failure = [](Bytes row, std::size_t size) -> std::string {
    row.resize(size);
    try {
      AHSRecord::FromRow(row);
    } catch (const std::out_of_range& error) {
      return error.what();
    }
    return "none";
  };
  const Bytes row = Row("FIM", "{}");
  EXPECT_EQ(failure(row, row.size()), "none");
  EXPECT_EQ(failure(row, row.size() - 1), "Serializer: Insufficient bytes to get string");
  EXPECT_EQ(failure(row, 4), "Serializer: Insufficient bytes to get data");
  EXPECT_THROW((void)formatter_.Insert("AgentStatus", "", {row.begin(), row.begin() + 12}), std::out_of_range);
}

TEST_F(AHSSqlDataFormatterTest, NamesTheRowsByARangeOfCodes) {
  EXPECT_EQ(AHSSqlDataFormatter::Condition({}), " WHERE [StatusCode] >= 4001 AND [StatusCode] <= 5000");
  AHSSqlDataFormatter::Range range;
  range.low = 1;
  range.high = 2;
  range.limit = 3;
  range.sort_column = "Time";
  EXPECT_EQ(AHSSqlDataFormatter::Condition(range),
            " WHERE [StatusCode] >= 1 AND [StatusCode] <= 2 ORDER BY Time LIMIT 3");
  range.descending = true;
  EXPECT_EQ(AHSSqlDataFormatter::Condition(range),
            " WHERE [StatusCode] >= 1 AND [StatusCode] <= 2 ORDER BY Time DESC LIMIT 3");
  range.limit = 0;
  EXPECT_EQ(AHSSqlDataFormatter::Condition(range),
            " WHERE [StatusCode] >= 1 AND [StatusCode] <= 2 ORDER BY Time DESC LIMIT 0")
      << "only -1 is no limit";
}

TEST_F(AHSSqlDataFormatterTest, DeletesCountsAndSelectsByACondition) {
  const std::string condition = AHSSqlDataFormatter::Condition({});
  EXPECT_EQ(formatter_.Delete("AgentStatus", condition), "DELETE FROM AgentStatus" + condition);
  EXPECT_EQ(AHSSqlDataFormatter::Count(condition), "SELECT count(*) FROM AgentStatus" + condition);
  EXPECT_EQ(AHSSqlDataFormatter::Count(""), "SELECT count(*) FROM AgentStatus");
  EXPECT_EQ(formatter_.Select("AgentStatus", condition), "SELECT * from AgentStatus" + condition);
  EXPECT_EQ(formatter_.Select("AgentStatus", ""), "SELECT * from AgentStatus");
  EXPECT_EQ(formatter_.Select("AgentStatus", AHSSqlDataFormatter::kOldest),
            "SELECT * from AgentStatus order by time limit 1");
}

TEST_F(AHSSqlDataFormatterTest, TakesNoOtherTextForACondition) {
  EXPECT_EQ(Refusal([&] { (void)formatter_.Delete("AgentStatus", "; DROP TABLE AgentStatus"); }),
            "AHSSqlDataFormatter: not a condition: ; DROP TABLE AgentStatus");
  EXPECT_NE(Refusal([&] { (void)formatter_.Delete("AgentStatus", ""); }), "none") << "all rows go by Clear";
  EXPECT_NE(Refusal([&] { (void)formatter_.Select("AgentStatus", "FIM"); }), "none");
}

TEST_F(AHSSqlDataFormatterTest, ClearsTheDatabaseAsAWholeOnly) {
  EXPECT_THAT(formatter_.Clear(), ElementsAre("DELETE FROM AgentStatus"));
  EXPECT_EQ(Refusal([&] { (void)formatter_.Clear("AgentStatus"); }),
            "Clear(tablename) is not implemented for BaselineEventSqlDataFormatter.");
}

TEST_F(AHSSqlDataFormatterTest, RefusesANewRowWhileOneIsUnfinished) {
  formatter_.Start();
  formatter_.Add("half");
  EXPECT_NE(Refusal([&] { formatter_.Start(); }), "none");
}

}  // namespace
}  // namespace zagent::health
