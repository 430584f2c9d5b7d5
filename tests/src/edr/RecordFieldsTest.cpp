#include "src/edr/RecordFields.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace zagent::edr {
namespace {

TEST(RecordFieldsTest, KnowsEveryFieldThatEventsReadByTheKernelsName) {
  const std::pair<const char*, RecordField> names[] = {
      {"arch", RecordField::Arch},       {"argc", RecordField::Argc},
      {"auid", RecordField::Auid},       {"cwd", RecordField::Cwd},
      {"dev", RecordField::Dev},         {"dir", RecordField::Dir},
      {"euid", RecordField::Euid},       {"exe", RecordField::Exe},
      {"exit", RecordField::Exit},       {"inode", RecordField::Inode},
      {"item", RecordField::Item},       {"items", RecordField::Items},
      {"key", RecordField::Key},         {"mode", RecordField::Mode},
      {"name", RecordField::Name},       {"nametype", RecordField::NameType},
      {"objtype", RecordField::ObjType}, {"oflag", RecordField::OFlag},
      {"ogid", RecordField::OGid},       {"op", RecordField::Op},
      {"ouid", RecordField::OUid},       {"path", RecordField::Path},
      {"pid", RecordField::Pid},         {"ppid", RecordField::PPid},
      {"saddr", RecordField::Saddr},     {"proctitle", RecordField::Proctitle},
      {"success", RecordField::Success}, {"syscall", RecordField::Syscall},
      {"uid", RecordField::Uid},         {"uring_op", RecordField::UringOp},
  };
  EXPECT_EQ(std::size(names), static_cast<std::size_t>(RecordField::Count));
  for (const auto& [name, field] : names) EXPECT_EQ(FieldNames::Find(name), field) << name;
}

TEST(RecordFieldsTest, TakesOtherNamesForNone) {
  for (const char* name :
       {"", "n", "gid", "rdev", "comm", "tty", "ses", "namee", "Name", "cap_fver", "proctitlf", "saddr_fam", "a0"}) {
    EXPECT_EQ(FieldNames::Find(name), std::nullopt) << name;
  }
}

TEST(RecordFieldsTest, CountsArgumentsByTheirNumberUpToTheLastThatIsKept) {
  EXPECT_EQ(ArgumentNamed("a0"), 0U);
  EXPECT_EQ(ArgumentNamed("a12"), 12U);
  EXPECT_EQ(ArgumentNamed("a254"), 254U);
  for (const char* name : {"a255", "a", "a1_len", "a1[0]", "argc", "auid", "b1", "a-1", "a99999999999999999999", ""}) {
    EXPECT_EQ(ArgumentNamed(name), std::nullopt) << name;
  }
}

TEST(RecordFieldsTest, TellsAnAbsentFieldFromAnEmptyOne) {
  RecordFields fields;
  EXPECT_TRUE(fields.IsEmpty());
  fields.Set(RecordField::Key, "");
  EXPECT_FALSE(fields.IsEmpty());
  EXPECT_TRUE(fields.Has(RecordField::Key));
  EXPECT_EQ(fields.At(RecordField::Key), "");
  EXPECT_FALSE(fields.Has(RecordField::Pid));
  EXPECT_EQ(fields.Find(RecordField::Pid), "");
}

TEST(RecordFieldsTest, ReportsTheLossOfAMandatoryFieldInTheKnownWords) {
  try {
    static_cast<void>(RecordFields().At(RecordField::Pid));
    ADD_FAILURE() << "nothing thrown";
  } catch (const std::out_of_range& error) {
    EXPECT_STREQ(error.what(), "_Map_base::at");
  }
}

TEST(RecordFieldsTest, KeepsTheLastValueOfAFieldThatComesTwice) {
  RecordFields fields;
  fields.Set(RecordField::Key, "first");
  fields.Set(RecordField::Key, "last");
  EXPECT_EQ(fields.At(RecordField::Key), "last");
}

TEST(RecordFieldsTest, PassesOverArgumentsThatTheRecordLost) {
  RecordFields fields;
  fields.SetArgument(2, "c");
  fields.SetArgument(0, {});
  EXPECT_EQ(fields.Argument(0), "") << "an empty value is a value";
  EXPECT_EQ(fields.Argument(1), std::nullopt);
  EXPECT_EQ(fields.Argument(2), "c");
  EXPECT_EQ(fields.Argument(3), std::nullopt);
  fields.SetArgument(RecordFields::kMaxArguments, "one too many");
  EXPECT_EQ(fields.Argument(RecordFields::kMaxArguments), std::nullopt);
}

TEST(RecordFieldsTest, ForgetsEverythingOfTheRecordBefore) {
  RecordFields fields;
  fields.Set(RecordField::Key, "k");
  fields.SetArgument(1, "b");
  fields.Clear();
  EXPECT_TRUE(fields.IsEmpty());
  fields.SetArgument(2, "c");
  EXPECT_EQ(fields.Argument(1), std::nullopt);
}

}  // namespace
}  // namespace zagent::edr
