#include "src/audit/parser/ExtendedCalls.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "common/src/util/DeviceText.h"
#include "src/audit/parser/RecordFeed.h"
#include "src/edr/process/ImageInfo.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/TestData.h"

namespace zagent::audit::internal {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// The operations of a real 6.1 kernel (tests/data/audit-extended-6.1.log). None of their files exists here, which is a
// state and no failure.
class ExtendedCallsTest : public testing::Test {
 protected:
  static std::string Step(const std::string& name) { return fakes::RecordsOfStep("audit-extended-6.1.log", name); }
  // "Rename /srv/w/a -> /srv/w/b" for each event in the records.
  std::vector<std::string> Told(const std::string& text, bool extended) {
    FileContext context;
    context.extended_coverage = extended;
    RecordFeed feed(MakeEventFactory(context), counters_);
    feed.Feed(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    feed.Flush();
    std::vector<std::string> lines;
    for (const auto& event : feed.TakeEvents()) {
      std::string line = event->GetAction();
      if (event->GetObjectType() == edr::ObjectType::File || event->GetObjectType() == edr::ObjectType::Directory) {
        line += " " + event->GetFile()->GetPath();
        if (event->GetType() == edr::EventType::Rename) line += " -> " + event->GetNewFile()->GetPath();
      }
      lines.push_back(line);
    }
    return lines;
  }
  std::vector<std::string> Without(const std::string& step) { return Told(Step(step), false); }
  std::vector<std::string> With(const std::string& step) { return Told(Step(step), true); }

  fakes::LogCapture log_;
  IntakeCounters counters_;
};

TEST_F(ExtendedCallsTest, OpenAt2IsAnOpeningByTheFlagsOfItsOwnRecord) {
  EXPECT_THAT(With("openat2-create, absolute"), ElementsAre("Create /srv/w/openat2-create.a"));
  EXPECT_THAT(With("openat2-create, relative to the working folder"), ElementsAre("Create /srv/w/openat2-create.c"));
  EXPECT_THAT(Without("openat2-create, absolute"), IsEmpty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Unsupported syscall in event: 437"));
}

TEST_F(ExtendedCallsTest, AnOpeningForReadingThatMadeItsFileIsACreate) {
  EXPECT_THAT(With("open-create-to-read, absolute"), ElementsAre("Create /srv/w/open-create-to-read.a"));
  EXPECT_THAT(With("openat-create-to-read, absolute"), ElementsAre("Create /srv/w/openat-create-to-read.a"));
  EXPECT_THAT(Without("open-create-to-read, absolute"), ElementsAre("Read /srv/w/open-create-to-read.a"));
}

TEST_F(ExtendedCallsTest, AnExchangeIsTwoRenamesOneEachWay) {
  EXPECT_THAT(With("renameat2-exchange, absolute"),
              ElementsAre("Rename /srv/w/renameat2-exchange.a -> /srv/w/renameat2-exchange.a-2",
                          "Rename /srv/w/renameat2-exchange.a-2 -> /srv/w/renameat2-exchange.a"));
  EXPECT_THAT(Without("renameat2-exchange, absolute"), IsEmpty());
}

TEST_F(ExtendedCallsTest, ARenameOverAFileStaysWhatItIs) {
  EXPECT_EQ(With("renameat2-over, absolute"), Without("renameat2-over, absolute"));
  EXPECT_EQ(With("renameat2-over, absolute").size(), 2U);
}

// An exchange that starts at two descriptors; which object got which name is told by inodes.
class ExchangeTest : public testing::Test {
 protected:
  static std::vector<ExtendedCalls::Told> Translate(const char* first_new, const char* second_new) {
    RecordList records(5, 1'700'000'000'000'000'000);
    Record call{record_type::kSyscall, {}};
    for (const std::size_t index : {0U, 2U}) call.fields.SetArgument(index, index == 0 ? "5" : "6");
    records.Records().push_back(call);
    const std::pair<const char*, const char*> paths[] = {{"PARENT", "1"},       {"PARENT", "2"},
                                                         {"DELETE", "8"},       {"DELETE", "9"},
                                                         {"CREATE", first_new}, {"CREATE", second_new}};
    for (const auto& [word, inode] : paths) {
      Record path{record_type::kPath, {}};
      path.fields.Set(edr::RecordField::NameType, word);
      path.fields.Set(edr::RecordField::Inode, inode);
      path.fields.Set(edr::RecordField::Dev, "08:01");
      records.Records().push_back(path);
    }
    return ExtendedCalls("/proc").Translate({record_type::kSyscall, 316, 6}, records);
  }
  // The descriptors that the old and the new name start at.
  static std::vector<std::string> Descriptors(const ExtendedCalls::Told& way) {
    const edr::RecordFields& call = way.records->Find(record_type::kSyscall)->fields;
    return {std::string(call.Argument(0).value()), std::string(call.Argument(2).value())};
  }
};

TEST_F(ExchangeTest, ItsSecondWayGoesFromTheSecondFolderToTheFirst) {
  const auto told = Translate("8", "9");
  ASSERT_EQ(told.size(), 2U);
  EXPECT_THAT(Descriptors(told[0]), ElementsAre("5", "6"));
  EXPECT_THAT(Descriptors(told[1]), ElementsAre("6", "5"));
}

TEST_F(ExchangeTest, IsNoneWhereTheObjectsDidNotChangePlaces) {
  EXPECT_EQ(Translate("7", "9").size(), 1U);
  EXPECT_EQ(Translate("8", "7").size(), 1U);
}

// Records of a file that exists here, in the form of the kernel's.
class ExtendedCallsOnDiskTest : public ExtendedCallsTest {
 protected:
  std::string Event(const std::string& call, const std::string& word, const std::string& how = "") {
    struct stat status {};
    EXPECT_EQ(lstat(file_.c_str(), &status), 0);
    char mode[32];
    std::snprintf(mode, sizeof mode, "0%o", status.st_mode);
    std::ostringstream text;
    const std::string stamp = " msg=audit(1700000000.123:900): ";
    text << "type=SYSCALL" << stamp << "arch=c000003e " << call << " success=yes exit=0 items=1 ppid=1 pid=4711"
         << " auid=4294967295 uid=0 gid=0 euid=0 comm=\"sh\" exe=\"/bin/sh\" key=\"rule\"\n";
    if (!how.empty()) text << "type=OPENAT2" << stamp << how << "\n";
    text << "type=CWD" << stamp << "cwd=\"/\"\n"
         << "type=PATH" << stamp << "item=0 name=\"" << file_ << "\" inode=" << status.st_ino
         << " dev=" << common::util::DeviceText(status.st_dev) << " mode=" << mode
         << " ouid=0 ogid=0 rdev=00:00 nametype=" << word << "\n"
         << "type=PROCTITLE" << stamp << "proctitle=\"sh\"\n";
    return text.str();
  }
  std::vector<std::string> Actions(const std::string& call, const std::string& word, bool extended,
                                   const std::string& how = "") {
    std::vector<std::string> actions;
    for (const std::string& line : Told(Event(call, word, how), extended)) {
      actions.push_back(line.substr(0, line.find(' ')));
    }
    return actions;
  }

  fakes::TempFolder folder_;
  std::string file_ = folder_.Write("file", "content");
};

TEST_F(ExtendedCallsOnDiskTest, TruncationIsAWrite) {
  EXPECT_THAT(Actions("syscall=76 a0=0 a1=1", "NORMAL", true), ElementsAre("Write"));
  EXPECT_THAT(Actions("syscall=77 a0=3 a1=1", "NORMAL", true), ElementsAre("Write"));
  EXPECT_THAT(Actions("syscall=76 a0=0 a1=1", "NORMAL", false), IsEmpty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Dropping event: Invalid syscall for Write event: 76"));
}

TEST_F(ExtendedCallsOnDiskTest, CreatOfAFileThatWasThereIsAWrite) {
  EXPECT_THAT(Actions("syscall=85 a0=0 a1=1a4", "NORMAL", true), ElementsAre("Write"));
  EXPECT_THAT(Actions("syscall=85 a0=0 a1=1a4", "CREATE", true), ElementsAre("Create"));
  EXPECT_THAT(Actions("syscall=85 a0=0 a1=1a4", "NORMAL", false), IsEmpty());
}

TEST_F(ExtendedCallsOnDiskTest, AnOpeningForReadingThatEmptiesItsFileIsAWrite) {
  EXPECT_THAT(Actions("syscall=2 a0=0 a1=200", "NORMAL", true), ElementsAre("Write"));
  EXPECT_THAT(Actions("syscall=257 a0=ffffff9c a1=0 a2=200", "NORMAL", true), ElementsAre("Write"));
  EXPECT_THAT(Actions("syscall=2 a0=0 a1=200", "NORMAL", false), ElementsAre("Read"));
  EXPECT_THAT(Actions("syscall=2 a0=0 a1=0", "NORMAL", true), ElementsAre("Read"));
  EXPECT_THAT(Actions("syscall=2 a0=0 a1=40", "NORMAL", true), ElementsAre("Read")) << "it made nothing";
  EXPECT_THAT(Actions("syscall=2 a0=0 a1=1", "NORMAL", true), ElementsAre("Write"));
}

TEST_F(ExtendedCallsOnDiskTest, OpenAt2TellsReadsFromWrites) {
  EXPECT_THAT(Actions("syscall=437 a0=ffffff9c a1=0 a2=7ffe a3=18", "NORMAL", true, "oflag=00 mode=00 resolve=0x0"),
              ElementsAre("Read"));
  EXPECT_THAT(Actions("syscall=437 a0=ffffff9c a1=0 a2=7ffe a3=18", "NORMAL", true, "oflag=01 mode=00 resolve=0x0"),
              ElementsAre("Write"));
  EXPECT_THAT(Actions("syscall=437 a0=ffffff9c a1=0 a2=7ffe a3=18", "NORMAL", true, "oflag=01000 mode=00 resolve=0x0"),
              ElementsAre("Write"));
}

TEST_F(ExtendedCallsOnDiskTest, Fchmodat2IsAChange) {
  EXPECT_THAT(Actions("syscall=452 a0=ffffff9c a1=0 a2=1a4 a3=0", "NORMAL", true), ElementsAre("Change"));
  EXPECT_THAT(Actions("syscall=452 a0=ffffff9c a1=0 a2=1a4 a3=0", "NORMAL", false), IsEmpty());
}

// An operation through io_uring, as its own record and those of its paths tell it.
class UringTest : public ExtendedCallsTest {
 protected:
  UringTest() {
    EXPECT_EQ(mkdir((proc_ / "77").c_str(), 0700), 0);
    EXPECT_EQ(symlink("/usr/bin/actor", (proc_ / "77/exe").c_str()), 0);
    proc_.Write("77/loginuid", "1000");
  }
  static std::unique_ptr<RecordList> Records(const std::string& operation,
                                             const std::vector<std::pair<std::string, std::string>>& paths,
                                             std::vector<std::unique_ptr<std::string>>& texts) {
    auto list = std::make_unique<RecordList>(5, 1'700'000'000'000'000'000);
    const auto keep = [&texts](const std::string& text) -> std::string_view {
      return *texts.emplace_back(std::make_unique<std::string>(text));
    };
    Record uring{record_type::kUringOp, {}};
    const std::pair<edr::RecordField, const char*> fields[] = {
        {edr::RecordField::Success, "yes"}, {edr::RecordField::Items, "4"}, {edr::RecordField::PPid, "1"},
        {edr::RecordField::Pid, "77"},      {edr::RecordField::Uid, "0"},   {edr::RecordField::Euid, "0"},
        {edr::RecordField::Key, "\"k\""}};
    for (const auto& [field, value] : fields) uring.fields.Set(field, value);
    uring.fields.Set(edr::RecordField::UringOp, keep(operation));
    list->Records().push_back(uring);
    for (const auto& [word, inode] : paths) {
      Record path{record_type::kPath, {}};
      path.fields.Set(edr::RecordField::NameType, keep(word));
      path.fields.Set(edr::RecordField::Name, "");
      if (!inode.empty()) path.fields.Set(edr::RecordField::Inode, keep(inode));
      path.fields.Set(edr::RecordField::Mode, word == "PARENT" ? "040755" : "0100644");
      list->Records().push_back(path);
    }
    return list;
  }
  // The words of the PATH records that are told, in their order.
  static std::vector<std::string> Words(RecordList& records) {
    std::vector<std::string> words;
    for (const Record& record : records.Records()) {
      if (record.type == record_type::kPath) words.emplace_back(record.fields.Find(edr::RecordField::NameType));
    }
    return words;
  }

  fakes::TempFolder proc_;
  ExtendedCalls calls_{proc_.Path()};
  std::vector<std::unique_ptr<std::string>> texts_;
};

TEST_F(UringTest, IsToldAsTheCallThatDoesTheSame) {
  const std::map<std::string, int> calls = {{"18", 257}, {"28", 257}, {"35", 264}, {"36", 263}, {"37", 258},
                                            {"38", 266}, {"39", 265}, {"41", 190}, {"42", 188}};
  for (const auto& [operation, syscall] : calls) {
    const auto source = Records(operation, {{"PARENT", "1"}, {"CREATE", "2"}}, texts_);
    const auto told = calls_.Translate({record_type::kUringOp}, *source);
    ASSERT_EQ(told.size(), 1U) << operation;
    EXPECT_EQ(told[0].syscall, syscall);
    EXPECT_EQ(told[0].records->Find(record_type::kSyscall)->fields.Find(edr::RecordField::Syscall),
              std::to_string(syscall));
  }
  const auto other = Records("22", {}, texts_);
  EXPECT_TRUE(calls_.Translate({record_type::kUringOp}, *other).empty());
}

TEST_F(UringTest, AsksTheProcessForWhatTheRecordDoesNotTell) {
  const auto source = Records("37", {{"PARENT", "1"}, {"CREATE", "2"}}, texts_);
  const auto told = calls_.Translate({record_type::kUringOp}, *source);
  const edr::RecordFields& call = told.at(0).records->Find(record_type::kSyscall)->fields;
  EXPECT_EQ(call.Find(edr::RecordField::Exe), "/usr/bin/actor");
  EXPECT_EQ(call.Find(edr::RecordField::Auid), "1000");
  EXPECT_EQ(call.Find(edr::RecordField::Pid), "77");
}

TEST_F(UringTest, KnowsNeitherProgramNorLoginOfAProcessThatIsGone) {
  const ExtendedCalls nobody(proc_ / "nowhere");
  const auto source = Records("37", {{"PARENT", "1"}, {"CREATE", "2"}}, texts_);
  const auto told = nobody.Translate({record_type::kUringOp}, *source);
  const edr::RecordFields& call = told.at(0).records->Find(record_type::kSyscall)->fields;
  EXPECT_EQ(call.Find(edr::RecordField::Exe), "");
  EXPECT_EQ(call.Find(edr::RecordField::Auid), "4294967295");
}

TEST_F(UringTest, TakesProgramAndLoginFromTheCallOfTheSameEvent) {
  const auto source = Records("37", {{"PARENT", "1"}, {"CREATE", "2"}}, texts_);
  Record enter{record_type::kSyscall, {}};
  enter.fields.Set(edr::RecordField::Exe, "/usr/bin/enter");
  enter.fields.Set(edr::RecordField::Auid, "1001");
  source->Records().push_back(enter);
  const auto told = calls_.Translate({record_type::kUringOp}, *source);
  const edr::RecordFields& call = told.at(0).records->Find(record_type::kSyscall)->fields;
  EXPECT_EQ(call.Find(edr::RecordField::Exe), "/usr/bin/enter");
  EXPECT_EQ(call.Find(edr::RecordField::Auid), "1001");
}

TEST_F(UringTest, KeepsTheTitleOfItsProcess) {
  const auto source = Records("37", {{"PARENT", "1"}, {"CREATE", "2"}}, texts_);
  Record title{record_type::kProctitle, {}};
  title.fields.Set(edr::RecordField::Proctitle, "actor x");
  source->Records().push_back(title);
  const auto told = calls_.Translate({record_type::kUringOp}, *source);
  const Record* kept = told.at(0).records->Find(record_type::kProctitle);
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->fields.Find(edr::RecordField::Proctitle), "actor x");
}

TEST_F(UringTest, LeavesOutTheLookThatFoundNothing) {
  const auto source = Records(
      "35", {{"PARENT", "1"}, {"DELETE", "9"}, {"PARENT", "2"}, {"CREATE", ""}, {"PARENT", "2"}, {"CREATE", "9"}},
      texts_);
  const auto told = calls_.Translate({record_type::kUringOp}, *source);
  EXPECT_THAT(Words(*told.at(0).records), ElementsAre("PARENT", "DELETE", "PARENT", "PARENT", "CREATE"));
}

TEST_F(UringTest, TellsTheRemovalOfAFolderFromThatOfAFile) {
  const auto source = Records("36", {{"PARENT", "1"}, {"DELETE", "9"}}, texts_);
  source->Records().back().fields.Set(edr::RecordField::Mode, "040755");
  EXPECT_EQ(calls_.Translate({record_type::kUringOp}, *source).at(0).syscall, 84);
}

TEST_F(ExtendedCallsTest, AnOperationThroughIoUringBecomesAnEventOnlyWhereCoverageIsExtended) {
  EXPECT_EQ(With("uring-unlinkat, absolute").size(), 1U);
  EXPECT_THAT(Without("uring-unlinkat, absolute"), IsEmpty());
}

}  // namespace
}  // namespace zagent::audit::internal
