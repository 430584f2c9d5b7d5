#include "src/audit/events/RunningEvent.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "common/src/util/FileAttributes.h"
#include "common/src/util/UniqueFd.h"
#include "src/edr/process/NameService.h"
#include "tests/fakes/AuditRecords.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

using fakes::AuditRecords;
using testing::ElementsAre;
using testing::IsEmpty;

class RunningEventTest : public ::testing::Test {
 protected:
  // The records of a call that made its process run `image`.
  AuditRecords& Call(const std::string& image, const AuditRecords::Fields& changes = {}) {
    AuditRecords::Fields fields = changes;
    fields.emplace("exe", image);
    return calls_.emplace_back().Syscall(59, fields);
  }
  AuditRecords& CallAndFolder(const std::string& image) { return Call(image).Cwd(folder_.Path()); }
  std::string Program(const std::string& name) {
    const std::string file = folder_.Write(name, "a program called " + name);
    EXPECT_EQ(chmod(file.c_str(), 0755), 0);
    return file;
  }
  // An EXECVE record of arguments "0", "1" and so on.
  static AuditRecords::Fields Numbered(std::size_t first, std::size_t end) {
    AuditRecords::Fields fields;
    for (std::size_t at = first; at < end; ++at) fields["a" + std::to_string(at)] = std::to_string(at);
    return fields;
  }
  static AuditRecords::Fields Announcing(std::size_t count, AuditRecords::Fields fields) {
    fields["argc"] = std::to_string(count);
    return fields;
  }
  static std::shared_ptr<FileContext> ContextWithLooks() {
    auto context = std::make_shared<FileContext>();
    context->looks = std::make_shared<DiskLooks>();
    return context;
  }
  static std::string ErrorOf(AuditRecords& records) {
    try {
      const RunningEvent event(records);
      return event.Refusal() != nullptr ? *event.Refusal() : "no EventException";
    } catch (const edr::EventException& error) {
      return error.what();
    }
  }
  static constexpr const char* kNoPath = "Missing or invalid path for Running event";

  std::deque<AuditRecords> calls_;
  fakes::TempFolder folder_;
  std::string program_ = Program("program");
  std::string shell_ = Program("shell");
  std::string script_ = Program("script");
};

TEST_F(RunningEventTest, TellsWhatRunsAndHowItWasCalled) {
  AuditRecords& records = Call(program_, {{"pid", "4711"}, {"ppid", "97"}, {"auid", "1000"}, {"euid", "0"}});
  records.Add(record_type::kExecve, {{"argc", "3"}, {"a0", "program"}, {"a1", "two words"}, {"a2", "x\xff\xfey"}});
  records.Cwd(folder_.Path()).Path("NORMAL", program_);
  const RunningEvent event(records);
  EXPECT_EQ(static_cast<int>(event.GetType()), 9);
  EXPECT_EQ(event.GetAction(), "Execve");
  EXPECT_EQ(static_cast<int>(event.GetObjectType()), 3);
  EXPECT_THAT(event.GetActorProcessArguments(), ElementsAre("program", "two words", "x\xff\xfey"));
  EXPECT_EQ(event.GetCwd(), folder_.Path());
  EXPECT_EQ(event.GetActorProcessId(), 4711);
  EXPECT_EQ(event.GetActorParentProcessId(), 97);
  EXPECT_EQ(event.GetActorAuid(), 1000U);
  EXPECT_TRUE(event.IsElevated());
  EXPECT_FALSE(event.HasSecondaryImage());
  EXPECT_EQ(event.GetSecondaryImage(), nullptr);
}

TEST_F(RunningEventTest, DescribesTheImageByItsRecord) {
  ASSERT_EQ(chown(program_.c_str(), 1, 2), 0);
  struct stat disk {};
  ASSERT_EQ(stat(program_.c_str(), &disk), 0);
  AuditRecords& records = CallAndFolder(program_);
  records.Path("NORMAL", program_);
  const RunningEvent event(records);
  const common::ImageInfo& image = *event.GetImage();
  EXPECT_EQ(image.GetPath(), program_);
  EXPECT_EQ(image.GetInode(), disk.st_ino);
  EXPECT_EQ(image.GetDevice(), common::util::DeviceText(disk.st_dev));
  EXPECT_EQ(image.GetPermission(), 755U);
  EXPECT_EQ(image.GetOwnerId(), 1U);
  EXPECT_EQ(image.GetOwnerName(), common::UserName(1));
  EXPECT_EQ(image.GetGroupId(), 2U);
  EXPECT_EQ(image.GetGroupName(), common::GroupName(2));
  EXPECT_EQ(image.GetText(), "");
}

TEST_F(RunningEventTest, HasTheScriptBehindItsInterpreter) {
  AuditRecords& records = CallAndFolder(shell_);
  records.Path("NORMAL", script_).Path("NORMAL", shell_);
  const RunningEvent event(records);
  ASSERT_TRUE(event.HasSecondaryImage());
  EXPECT_EQ(event.GetSecondaryImage()->GetPath(), script_);
  EXPECT_EQ(event.GetImage()->GetPath(), shell_);
  struct stat disk {};
  ASSERT_EQ(stat(shell_.c_str(), &disk), 0);
  EXPECT_EQ(event.GetImage()->GetInode(), disk.st_ino);
  EXPECT_EQ(event.GetImage()->GetText(),
            common::util::ReadFileSystemAttributes(shell_, common::util::DeviceText(disk.st_dev), disk.st_ino));
  ASSERT_EQ(stat(script_.c_str(), &disk), 0);
  EXPECT_EQ(event.GetSecondaryImage()->GetInode(), disk.st_ino);
  EXPECT_EQ(event.GetSecondaryImage()->GetPermission(), 755U);
  EXPECT_EQ(event.GetSecondaryImage()->GetOwnerName(), common::UserName(disk.st_uid));
}

// As the kernel records it under a security module.
TEST_F(RunningEventTest, FindsTheInterpreterBehindAScriptThatIsRecordedTwice) {
  AuditRecords& records = CallAndFolder(shell_);
  records.Path("NORMAL", script_).Path("NORMAL", script_).Path("NORMAL", shell_);
  const RunningEvent event(records);
  EXPECT_EQ(event.GetImage()->GetPath(), shell_);
  EXPECT_EQ(event.GetSecondaryImage()->GetPath(), script_);
}

TEST_F(RunningEventTest, AProgramIsLookedAtOnceUntilTheNextPieceOfRecords) {
  const auto context = ContextWithLooks();
  AuditRecords& first = CallAndFolder(program_).Path("NORMAL", program_);
  AuditRecords& second = CallAndFolder(program_).Path("NORMAL", program_);
  AuditRecords& third = CallAndFolder(program_).Path("NORMAL", program_);
  EXPECT_EQ(RunningEvent(first, context).Refusal(), nullptr);
  ASSERT_EQ(unlink(program_.c_str()), 0);
  EXPECT_EQ(RunningEvent(second, context).Refusal(), nullptr) << "its piece was read before";
  context->looks->Forget();
  EXPECT_NE(RunningEvent(third, context).Refusal(), nullptr);
}

TEST_F(RunningEventTest, AProgramThatIsAnotherThanTheOneThatWasSeenIsLookedAtAgain) {
  const auto context = ContextWithLooks();
  AuditRecords& first = CallAndFolder(program_).Path("NORMAL", program_);
  AuditRecords& late = CallAndFolder(program_).Path("NORMAL", program_);
  EXPECT_EQ(RunningEvent(first, context).Refusal(), nullptr);
  ASSERT_EQ(std::rename(shell_.c_str(), program_.c_str()), 0);
  AuditRecords& second = CallAndFolder(program_).Path("NORMAL", program_);
  EXPECT_EQ(RunningEvent(second, context).Refusal(), nullptr);
  EXPECT_NE(RunningEvent(late, context).Refusal(), nullptr) << "the one that is gone is no longer what was seen";
}

TEST_F(RunningEventTest, FindsTheInterpreterUnderTheNameOfALink) {
  const std::string link = folder_ / "sh";
  ASSERT_EQ(symlink("shell", link.c_str()), 0);
  AuditRecords& records = CallAndFolder(shell_);
  records.Path("NORMAL", script_).Path("NORMAL", link, shell_);
  EXPECT_EQ(RunningEvent(records).GetImage()->GetPath(), shell_);
}

TEST_F(RunningEventTest, FindsTheImageBehindAnInterpreterThatIsAScriptItself) {
  const std::string outer = Program("script-of-script");
  AuditRecords& records = CallAndFolder(shell_);
  records.Path("NORMAL", outer).Path("NORMAL", outer).Path("NORMAL", script_).Path("NORMAL", shell_);
  const RunningEvent event(records);
  ASSERT_EQ(event.Refusal(), nullptr) << *event.Refusal();
  EXPECT_EQ(event.GetImage()->GetPath(), shell_);
  EXPECT_EQ(event.GetSecondaryImage()->GetPath(), outer);
}

TEST_F(RunningEventTest, TakesTheFirstOtherRecordForAnInterpreterThatIsGone) {
  AuditRecords& records = CallAndFolder(shell_);
  records.Path("NORMAL", script_).Path("NORMAL", shell_);
  ASSERT_EQ(unlink(shell_.c_str()), 0);
  EXPECT_EQ(ErrorOf(records), "Process image path " + shell_ + " differs from the object of the audit event.");
}

TEST_F(RunningEventTest, IsNoEventOfAScriptWithoutItsInterpreter) {
  AuditRecords& one = CallAndFolder(shell_);
  one.Path("NORMAL", script_);
  EXPECT_EQ(ErrorOf(one), kNoPath);
  AuditRecords& twice = CallAndFolder(shell_);
  twice.Path("NORMAL", script_).Path("NORMAL", script_);
  EXPECT_EQ(ErrorOf(twice), kNoPath);
}

TEST_F(RunningEventTest, IsNoEventWithoutAPath) {
  EXPECT_EQ(ErrorOf(CallAndFolder(program_)), kNoPath);
}

TEST_F(RunningEventTest, FollowsALinkToTheProgram) {
  const std::string link = folder_ / "link";
  ASSERT_EQ(symlink("program", link.c_str()), 0);
  AuditRecords& records = CallAndFolder(program_);
  records.Path("NORMAL", link, program_).Path("NORMAL", link);
  const RunningEvent event(records);
  EXPECT_FALSE(event.HasSecondaryImage());
  EXPECT_EQ(event.GetImage()->GetPath(), program_);
}

TEST_F(RunningEventTest, FindsNamesFromTheWorkingFolder) {
  ASSERT_EQ(mkdir((folder_ / "sub").c_str(), 0755), 0);
  AuditRecords& of_program = Call(program_);
  of_program.Cwd(folder_ / "sub").Path("NORMAL", "../program", program_);
  EXPECT_FALSE(RunningEvent(of_program).HasSecondaryImage());
  AuditRecords& of_script = Call(shell_);
  of_script.Cwd(folder_ / "sub").Path("NORMAL", ".././script", script_).Path("NORMAL", shell_);
  EXPECT_EQ(RunningEvent(of_script).GetSecondaryImage()->GetPath(), script_);
}

TEST_F(RunningEventTest, CannotPlaceARelativeNameWithoutAWorkingFolder) {
  AuditRecords& records = Call(program_);
  records.Path("NORMAL", "program", program_);
  EXPECT_EQ(ErrorOf(records), "Missing CWD with relative path");
}

// The name is the caller's: here it leads to the program of the test.
TEST_F(RunningEventTest, TakesTheRecordOfTheImageForNoScriptWhateverItsName) {
  AuditRecords& records = CallAndFolder(program_);
  records.Path("NORMAL", "/proc/self/exe", program_).Path("NORMAL", "/proc/self/exe");
  const RunningEvent event(records);
  EXPECT_FALSE(event.HasSecondaryImage());
  EXPECT_EQ(event.GetImage()->GetPath(), program_);
}

TEST_F(RunningEventTest, HasTheDeviceOfAStatWhereTheRecordHasThatOfTheMount) {
  ASSERT_EQ(mkdir((folder_ / "self").c_str(), 0755), 0);
  folder_.Write("self/mountinfo",
                "21 1 254:1 / / rw - ext4 none rw\n30 21 7:77 / " + folder_.Path() + " rw - btrfs none rw\n");
  auto context = std::make_shared<FileContext>();
  context->mounts = std::make_shared<MountTable>(folder_.Path(), [](int) { return false; });
  struct stat disk {};
  ASSERT_EQ(stat(program_.c_str(), &disk), 0);
  AuditRecords& records = CallAndFolder(program_);
  records.Path("NORMAL", program_, program_, {{"dev", common::util::DeviceText(makedev(7, 77))}});
  const RunningEvent event(records, context);
  ASSERT_EQ(event.Refusal(), nullptr) << *event.Refusal();
  EXPECT_EQ(event.GetImage()->GetDevice(), common::util::DeviceText(disk.st_dev));
}

TEST_F(RunningEventTest, IsNoEventOfAProgramThatWasReplaced) {
  AuditRecords& records = CallAndFolder(program_);
  records.Path("NORMAL", program_);
  ASSERT_EQ(std::rename(shell_.c_str(), program_.c_str()), 0);
  EXPECT_EQ(ErrorOf(records), "Process image path " + program_ +
                                  " differs from the object of the audit event: Actual file path " + program_ +
                                  " differs from the ImageInfo.");
}

TEST_F(RunningEventTest, IsNoEventOfAProgramThatIsGone) {
  AuditRecords& records = CallAndFolder(program_);
  records.Path("NORMAL", program_);
  ASSERT_EQ(unlink(program_.c_str()), 0);
  EXPECT_EQ(ErrorOf(records), "Process image path " + program_ + " differs from the object of the audit event.");
}

TEST_F(RunningEventTest, HasOneWorkingFolder) {
  AuditRecords& records = CallAndFolder(program_);
  records.Cwd("/").Path("NORMAL", program_);
  EXPECT_EQ(ErrorOf(records), "Too many CWD records in Running event");
}

TEST_F(RunningEventTest, IsMadeOfItsOwnCallOnly) {
  AuditRecords& records = Call(program_, {{"syscall", "57"}});
  records.Path("NORMAL", program_);
  EXPECT_EQ(ErrorOf(records), "Invalid syscall for Running event: 57");
}

TEST_F(RunningEventTest, RefusesTheRecordOfAFileThatIsNotThere) {
  AuditRecords& records = CallAndFolder(program_);
  records.Add(record_type::kPath, {{"item", "0"}, {"name", "/nothing"}, {"nametype", "UNKNOWN"}});
  EXPECT_EQ(ErrorOf(records), "Cannot create PathRecord without inode information");
}

class RunningArgumentsTest : public RunningEventTest {
 protected:
  std::vector<std::string> ArgumentsOf(const std::vector<AuditRecords::Fields>& execve) {
    AuditRecords& records = CallAndFolder(program_);
    for (const AuditRecords::Fields& fields : execve) records.Add(record_type::kExecve, fields);
    records.Path("NORMAL", program_);
    return RunningEvent(records).GetActorProcessArguments();
  }
};

TEST_F(RunningArgumentsTest, AreTheFirst255OfALongList) {
  const std::vector<std::string> kept = ArgumentsOf({Announcing(300, Numbered(0, 300))});
  ASSERT_EQ(kept.size(), 255U);
  EXPECT_EQ(kept.front(), "0");
  EXPECT_EQ(kept.back(), "254");
}

// Only the first of several records announces how many there are.
TEST_F(RunningArgumentsTest, GoOnInTheNextRecord) {
  const std::vector<std::string> kept =
      ArgumentsOf({Announcing(300, Numbered(0, 96)), Numbered(96, 188), Numbered(188, 280), Numbered(280, 300)});
  ASSERT_EQ(kept.size(), 255U);
  for (std::size_t at = 0; at < kept.size(); ++at) EXPECT_EQ(kept[at], std::to_string(at));
}

TEST_F(RunningArgumentsTest, LeaveOutWhatIsMissingOrEmpty) {
  EXPECT_THAT(ArgumentsOf({{{"argc", "5"}, {"a0", "x"}, {"a2", ""}, {"a3", "y"}}}), ElementsAre("x", "y"));
  EXPECT_THAT(ArgumentsOf({{{"argc", "2"}, {"a0", "x"}, {"a1_len", "9"}, {"a1[0]", "3030"}}}), ElementsAre("x"));
}

TEST_F(RunningArgumentsTest, EndAtTheAnnouncedNumber) {
  EXPECT_THAT(ArgumentsOf({{{"argc", "1"}, {"a0", "x"}, {"a1", "y"}}}), ElementsAre("x"));
  EXPECT_THAT(ArgumentsOf({{{"argc", "0"}, {"a0", "x"}}}), IsEmpty());
  EXPECT_THAT(ArgumentsOf({{{"argc", "many"}, {"a0", "x"}}}), IsEmpty());
  EXPECT_THAT(ArgumentsOf({}), IsEmpty());
}

TEST_F(RunningArgumentsTest, BeginAnewWhenARecordAnnouncesFewer) {
  EXPECT_THAT(ArgumentsOf({Announcing(3, Numbered(0, 3)), {{"argc", "1"}, {"a0", "x"}}}), ElementsAre("x"));
}

TEST_F(RunningArgumentsTest, AreNeverMoreThan255HoweverOftenTheyAreRepeated) {
  const AuditRecords::Fields all = Announcing(255, Numbered(0, 255));
  EXPECT_EQ(ArgumentsOf({all, all, all}).size(), 255U);
}

TEST_F(RunningEventTest, ClonesWithEverythingThatItKnows) {
  AuditRecords& records = CallAndFolder(shell_);
  records.Add(record_type::kExecve, {{"argc", "1"}, {"a0", "shell"}});
  records.Path("NORMAL", script_).Path("NORMAL", shell_);
  const RunningEvent event(records);
  const std::unique_ptr<edr::Event> copy = event.Clone();
  EXPECT_EQ(copy->GetId(), event.GetId());
  EXPECT_EQ(copy->GetAuditKey(), "rule-w");
  EXPECT_THAT(copy->GetActorProcessArguments(), ElementsAre("shell"));
  EXPECT_EQ(copy->GetCwd(), folder_.Path());
  EXPECT_EQ(copy->GetImage()->GetPath(), shell_);
  EXPECT_NE(copy->GetImage(), event.GetImage());
  ASSERT_TRUE(copy->HasSecondaryImage());
  EXPECT_EQ(copy->GetSecondaryImage()->GetPath(), script_);
  EXPECT_NE(copy->GetSecondaryImage(), event.GetSecondaryImage());
}

TEST_F(RunningEventTest, RefusesQuestionsAboutFilesAndSockets) {
  AuditRecords& records = CallAndFolder(program_);
  records.Path("NORMAL", program_);
  const RunningEvent event(records);
  EXPECT_THROW(static_cast<void>(event.GetNetworkAddress()), std::runtime_error);
  EXPECT_THROW(static_cast<void>(event.GetFile()), std::runtime_error);
}

// execveat, whose names may start at a descriptor.
class RunningAtTest : public RunningEventTest {
 protected:
  AuditRecords& CallAt(const std::string& image, int fd) {
    char hex[32];
    std::snprintf(hex, sizeof hex, "%x", static_cast<unsigned>(fd));
    return Call(image, {{"syscall", "322"}, {"a0", hex}, {"pid", std::to_string(getpid())}}).Cwd("/");
  }
};

TEST_F(RunningAtTest, RunsAProgramByItsAbsoluteName) {
  AuditRecords& records = CallAt(program_, -100);
  records.Path("NORMAL", program_);
  EXPECT_EQ(RunningEvent(records).GetImage()->GetPath(), program_);
}

TEST_F(RunningAtTest, FindsAScriptBelowAFolderThatIsOpen) {
  const common::util::UniqueFd fd(open(folder_.Path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  AuditRecords& records = CallAt(shell_, fd.Get());
  records.Path("NORMAL", "script", script_).Path("NORMAL", shell_);
  EXPECT_EQ(RunningEvent(records).GetSecondaryImage()->GetPath(), script_);
}

TEST_F(RunningAtTest, FindsAScriptThatIsTheDescriptorItself) {
  const common::util::UniqueFd fd(open(script_.c_str(), O_PATH | O_CLOEXEC));
  AuditRecords& records = CallAt(shell_, fd.Get());
  records.Path("NORMAL", "", script_).Path("NORMAL", shell_);
  EXPECT_EQ(RunningEvent(records).GetSecondaryImage()->GetPath(), script_);
}

TEST_F(RunningAtTest, TakesTheProgramForTheImageWhenTheDescriptorIsGone) {
  AuditRecords& records = CallAt(program_, 1'000'000);
  records.Path("NORMAL", "program", program_);
  const RunningEvent event(records);
  EXPECT_EQ(event.GetImage()->GetPath(), program_);
  EXPECT_FALSE(event.HasSecondaryImage());
}

}  // namespace
}  // namespace zagent::audit::internal
