#include "src/audit/events/RecordLine.h"

#include <gtest/gtest.h>

#include <string>

#include "src/audit/events/RecordSource.h"

namespace zagent::audit::internal {
namespace {

TEST(RecordLine, BeginsWithItsTypeAndTheStampOfItsEvent) {
  const std::string text = "type=PATH msg=audit(1795162410.936:126): item=0 name=\"/srv/w/\"";
  const auto line = ReadRecordLine(text);
  ASSERT_TRUE(line);
  EXPECT_EQ(line->type, record_type::kPath);
  EXPECT_EQ(line->host, "");
  EXPECT_EQ(line->stamp, "1795162410.936:126");
  EXPECT_EQ(line->text, text);
  EXPECT_EQ(line->body, "item=0 name=\"/srv/w/\"");
}

TEST(RecordLine, LeavesOutWhatTheAuditDaemonAddsForPeople) {
  const auto line = ReadRecordLine("type=PATH msg=audit(1.002:3): item=0 ouid=0\x1dOUID=\"root\"");
  ASSERT_TRUE(line);
  EXPECT_EQ(line->body, "item=0 ouid=0");
}

TEST(RecordLine, EndsAtANul) {
  const std::string text = "type=PATH msg=audit(1.002:3): item=0 name=\"/srv\"";
  const std::string longer = text + std::string("\0x\" inode=5", 11);
  const auto line = ReadRecordLine(longer);
  ASSERT_TRUE(line);
  EXPECT_EQ(line->text, text);
  EXPECT_EQ(line->body, "item=0 name=\"/srv\"");
  EXPECT_FALSE(ReadRecordLine(std::string("\0", 1) + text));
}

TEST(RecordLine, MayNameItsMachine) {
  const auto line = ReadRecordLine("node=web-1 type=CWD msg=audit(1.002:3): cwd=\"/\"");
  ASSERT_TRUE(line);
  EXPECT_EQ(line->host, "web-1");
  EXPECT_EQ(line->type, record_type::kCwd);
  EXPECT_EQ(line->stamp, "1.002:3");
}

TEST(RecordLine, KnowsTheTypesThatEventsAreMadeOf) {
  const auto type_of = [](const std::string& name) {
    const auto line = ReadRecordLine("type=" + name + " msg=audit(1.002:3): ");
    return line ? line->type : 0;
  };
  EXPECT_EQ(type_of("SYSCALL"), 1300);
  EXPECT_EQ(type_of("PATH"), 1302);
  EXPECT_EQ(type_of("CONFIG_CHANGE"), 1305);
  EXPECT_EQ(type_of("SOCKADDR"), 1306);
  EXPECT_EQ(type_of("CWD"), 1307);
  EXPECT_EQ(type_of("EXECVE"), 1309);
  EXPECT_EQ(type_of("EOE"), 1320);
  EXPECT_EQ(type_of("BPRM_FCAPS"), 1321);
  EXPECT_EQ(type_of("PROCTITLE"), 1327);
  EXPECT_EQ(type_of("URINGOP"), 1336);
  EXPECT_EQ(type_of("OPENAT2"), 1337);
  EXPECT_EQ(type_of("ANOM_ABEND"), 1701);
  EXPECT_EQ(type_of("UNKNOWN[1420]"), 1420);
  EXPECT_EQ(type_of("USER_LOGIN"), 1112);
  EXPECT_EQ(type_of("NO_SUCH_TYPE"), -1);
}

TEST(RecordLine, IsNothingOfTextThatDoesNotBeginAsARecord) {
  for (const char* text :
       {"", "x", "type=", "type=PATH", "type=PATH ", "type=PATH msg=audit", "type=PATH msg=audit(1.2:3", "node=web-1",
        "node=web-1 ", " type=PATH msg=audit(1.2:3): a=1", "type=PATH audit(1.2:3): a=1",
        "ype=PATH msg=audit(1.2:3): a=1", "type=PATH  msg=audit(1.2:3): a=1"}) {
    EXPECT_FALSE(ReadRecordLine(text)) << text;
  }
}

TEST(RecordLine, MayHaveNoFields) {
  for (const char* text : {"type=EOE msg=audit(1.2:3): ", "type=EOE msg=audit(1.2:3):", "type=EOE msg=audit(1.2:3)"}) {
    const auto line = ReadRecordLine(text);
    ASSERT_TRUE(line) << text;
    EXPECT_EQ(line->body, "") << text;
  }
}

TEST(RecordStamp, SaysTheSecondAndTheSerialNumber) {
  const auto stamp = ReadStamp("1795162410.936:126");
  ASSERT_TRUE(stamp);
  EXPECT_EQ(stamp->seconds, 1'795'162'410U);
  EXPECT_EQ(stamp->serial, 126U);
}

TEST(RecordStamp, IsNothingWhenItIsDamaged) {
  for (const char* text : {"", "1", "1.2", "1.2:", "1.:3", ".2:3", "x.2:3", "1,2:3", "1.2.3", "1.2:3x", "1.2:-3",
                           " 1.2:3", "99999999999999999999.999:1", "1.2:99999999999999999999"}) {
    EXPECT_FALSE(ReadStamp(text)) << text;
  }
}

}  // namespace
}  // namespace zagent::audit::internal
