#include "src/audit/parser/EventFactory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/src/util/DeviceText.h"
#include "src/audit/parser/RecordFeed.h"
#include "src/edr/process/ImageInfo.h"
#include "tests/fakes/AuditRecords.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

using testing::ElementsAre;

class NoMagic final : public edr::LibMagicWrapper {
 public:
  NoMagic() = default;
};

// Audit events about objects of a real folder, as the kernel would have written them, through auparse to the program's
// own event classes.
class EventFactoryTest : public testing::Test {
 protected:
  // "PARENT /folder" and so on; an object that is not on the disk any more is described by `model`.
  std::string Path(const std::string& word, const std::string& path, const std::string& model = "") {
    struct stat status {};
    EXPECT_EQ(lstat((model.empty() ? path : model).c_str(), &status), 0) << path;
    char mode[32];
    std::snprintf(mode, sizeof mode, "0%o", status.st_mode);
    std::ostringstream line;
    line << "type=PATH msg=audit(1700000000.123:900): item=" << items_++ << " name=\"" << path
         << "\" inode=" << status.st_ino << " dev=" << common::util::DeviceText(status.st_dev) << " mode=" << mode
         << " ouid=" << status.st_uid << " ogid=" << status.st_gid << " rdev=00:00 nametype=" << word << "\n";
    return line.str();
  }
  Events Build(int syscall, const std::string& paths, const std::string& arguments = "a0=0 a1=0 a2=0 a3=0") {
    std::ostringstream text;
    text << "type=SYSCALL msg=audit(1700000000.123:900): arch=c000003e syscall=" << syscall << " success=yes exit=0 "
         << arguments << " items=" << items_
         << " ppid=1 pid=4711 auid=4294967295 uid=0 gid=0 euid=0 suid=0 fsuid=0 egid=0 sgid=0 fsgid=0 tty=(none)"
         << " ses=4294967295 comm=\"sh\" exe=\"/bin/sh\" key=\"rule\"\n"
         << "type=CWD msg=audit(1700000000.123:900): cwd=\"" << folder_.Path() << "\"\n"
         << paths << "type=PROCTITLE msg=audit(1700000000.123:900): proctitle=\"sh\"\n";
    items_ = 0;
    FileContext context{std::make_shared<NoMagic>()};
    context.extended_coverage = extended_coverage_;
    RecordFeed feed(MakeEventFactory(std::move(context)), counters_);
    const std::string bytes = text.str();
    feed.Feed(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    feed.Flush();
    return feed.TakeEvents();
  }
  std::vector<std::string> Actions(int syscall, const std::string& paths,
                                   const std::string& arguments = "a0=0 a1=0 a2=0 a3=0") {
    std::vector<std::string> actions;
    for (const auto& event : Build(syscall, paths, arguments)) actions.push_back(event->GetAction());
    return actions;
  }

  fakes::LogCapture lines_;
  fakes::TempFolder folder_;
  IntakeCounters counters_;
  bool extended_coverage_ = false;
  std::string file_ = folder_.Write("file", "content");
  int items_ = 0;
};

TEST_F(EventFactoryTest, MakesAReadOfAnOpenedFile) {
  EXPECT_THAT(Actions(257, Path("NORMAL", file_), "a0=ffffff9c a1=0 a2=0 a3=0"), ElementsAre("Read")) << lines_.All();
}

TEST_F(EventFactoryTest, MakesAWriteOfAFileOpenedForWriting) {
  EXPECT_THAT(Actions(2, Path("NORMAL", file_), "a0=0 a1=1 a2=0 a3=0"), ElementsAre("Write")) << lines_.All();
}

TEST_F(EventFactoryTest, MakesACreateOfANewFolder) {
  const std::string made = folder_ / "made";
  ASSERT_EQ(mkdir(made.c_str(), 0700), 0);
  EXPECT_THAT(Actions(83, Path("PARENT", folder_.Path()) + Path("CREATE", made)), ElementsAre("Create"))
      << lines_.All();
}

TEST_F(EventFactoryTest, MakesADeleteOfARemovedFile) {
  const std::string removed = folder_ / "removed";
  const std::string paths = Path("PARENT", folder_.Path()) + Path("DELETE", removed, file_);
  EXPECT_THAT(Actions(87, paths), ElementsAre("Delete")) << lines_.All();
}

TEST_F(EventFactoryTest, MakesAChangeOfChangedAttributes) {
  EXPECT_THAT(Actions(90, Path("NORMAL", file_)), ElementsAre("Change")) << lines_.All();
}

TEST_F(EventFactoryTest, MakesARenameOfANewName) {
  const std::string paths = Path("PARENT", folder_.Path()) + Path("PARENT", folder_.Path()) +
                            Path("DELETE", folder_ / "old", file_) + Path("CREATE", file_);
  EXPECT_THAT(Actions(82, paths), ElementsAre("Rename")) << lines_.All();
}

TEST_F(EventFactoryTest, MakesADeleteAndThenARenameOfARenameOverAFile) {
  const std::string victim = folder_.Write("victim", "its inode stands for the replaced file");
  const std::string paths = Path("PARENT", folder_.Path()) + Path("PARENT", folder_.Path()) +
                            Path("DELETE", folder_ / "old", file_) + Path("DELETE", file_, victim) +
                            Path("CREATE", file_);
  const Events events = Build(82, paths);
  ASSERT_EQ(events.size(), 2U) << lines_.All();
  EXPECT_EQ(events[0]->GetAction(), "Delete");
  EXPECT_EQ(events[1]->GetAction(), "Rename");
  EXPECT_EQ(events[0]->GetId(), events[1]->GetId());
}

TEST_F(EventFactoryTest, DropsARefusedEventWithItsReasonAndWithoutAnException) {
  const std::string paths = Path("NORMAL", file_);
  ASSERT_EQ(unlink(file_.c_str()), 0);
  EXPECT_THAT(Build(90, paths), testing::IsEmpty());
  EXPECT_TRUE(
      lines_.Has(Poco::Message::PRIO_DEBUG, "Dropping event: File stat does not exist for Change event with ID 900"))
      << lines_.All();
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::NotBuilt), 1U);
}

TEST_F(EventFactoryTest, TellsNoHalfOfAnExchange) {
  extended_coverage_ = true;
  const std::string other = folder_.Write("other", "has changed places with the file");
  std::string paths = Path("PARENT", folder_.Path()) + Path("PARENT", folder_.Path()) + Path("DELETE", other, file_) +
                      Path("DELETE", file_, other) + Path("CREATE", file_) + Path("CREATE", other);
  const std::string arguments = "a0=ffffff9c a1=0 a2=ffffff9c a3=0";
  EXPECT_THAT(Actions(316, paths, arguments), ElementsAre("Rename", "Rename")) << lines_.All();
  paths.replace(paths.rfind(" mode="), 6, " mood=");
  items_ = 6;
  EXPECT_THAT(Build(316, paths, arguments), testing::IsEmpty());
  EXPECT_EQ(counters_.Get(IntakeCounters::Reason::NotBuilt), 1U);
}

// Whoever asked for the operation may have another thread make it, and its record names no program.
TEST_F(EventFactoryTest, FindsTheActorOfAnIoUringOperationBelowTheRootOfProcfs) {
  FileContext context{std::make_shared<NoMagic>()};
  context.extended_coverage = true;
  context.proc_root = folder_ / "proc";
  for (const char* name : {"proc", "proc/4711", "made"}) ASSERT_EQ(mkdir((folder_ / name).c_str(), 0755), 0);
  ASSERT_EQ(symlink("/bin/actor", (folder_ / "proc/4711/exe").c_str()), 0);
  folder_.Write("proc/4711/loginuid", "1000");
  fakes::AuditRecords records;
  records.Add(record_type::kUringOp, {{"uring_op", "37"},
                                      {"success", "yes"},
                                      {"exit", "0"},
                                      {"items", "2"},
                                      {"ppid", "97"},
                                      {"pid", "4711"},
                                      {"uid", "0"},
                                      {"euid", "0"},
                                      {"key", "\"rule-w\""}});
  records.Cwd(folder_.Path()).Path("PARENT", "(null)", folder_.Path()).Path("CREATE", "(null)", folder_ / "made");
  Events events;
  MakeEventFactory(std::move(context))({record_type::kUringOp}, records, events);
  ASSERT_EQ(events.size(), 1U) << lines_.All();
  EXPECT_EQ(events[0]->GetFile()->GetPath(), folder_ / "made");
  EXPECT_EQ(events[0]->GetImage()->GetPath(), "/bin/actor");
  EXPECT_EQ(events[0]->GetActorAuid(), 1000U);
}

// A class says its action as soon as it has read its records, whatever they lack: so each call tells its class.
class EventFactoryCallsTest : public EventFactoryTest {
 protected:
  using ActionOfCall = std::map<int, std::string>;

  // By the numbers of the x86-64 table.
  static ActionOfCall KnownCalls() {
    const std::map<std::string, std::set<int>> calls_of = {
        {"Write", {0, 1, 2, 17, 18, 19, 20, 76, 77, 257, 295, 296, 304}},
        {"Rename", {82, 264, 316}},
        {"Create", {83, 85, 86, 88, 133, 258, 259, 265, 266}},
        {"Delete", {84, 87, 263}},
        {"Change", {90, 91, 92, 93, 94, 132, 188, 189, 190, 197, 198, 199, 235, 260, 261, 268, 280}},
        {"Connect", {42}},
        {"Bind", {49}},
        {"Clone", {56, 57, 58}},
        {"Execve", {59}},
        {"Exit", {231}},
    };
    ActionOfCall known;
    for (const auto& [action, calls] : calls_of) {
      for (const int call : calls) known[call] = action;
    }
    return known;
  }
  // "" for a call that means nothing.
  std::string ActionOf(int number) {
    const fakes::LogCapture lines;
    Build(number, "");
    if (lines.Has("Unsupported syscall in event: " + std::to_string(number))) return "";
    constexpr std::string_view kAction = "Event Action: ";
    for (const Poco::Message& line : lines.Lines()) {
      const std::size_t at = line.getText().find(kAction);
      if (at != std::string::npos) return line.getText().substr(at + kAction.size());
    }
    return "neither an action nor a refusal:\n" + lines.All();
  }
  void ExpectOnly(const ActionOfCall& known) {
    for (int number = 0; number <= 500; ++number) {
      const auto expected = known.find(number);
      EXPECT_EQ(ActionOf(number), expected != known.end() ? expected->second : "") << "call " << number;
    }
  }
};

TEST_F(EventFactoryCallsTest, KnowsItsCallsAndNoOthers) {
  ExpectOnly(KnownCalls());
}

TEST_F(EventFactoryCallsTest, WithExtendedCoverageKnowsThreeCallsMore) {
  extended_coverage_ = true;
  ActionOfCall known = KnownCalls();
  known[322] = "Execve";  // execveat
  known[437] = "Write";   // openat2
  known[452] = "Change";  // fchmodat2
  known[85] = "Write";    // creat: of these records none tells that it made its file
  ExpectOnly(known);
}

}  // namespace
}  // namespace zagent::audit::internal
