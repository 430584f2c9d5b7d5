#include "src/edr/host/LifeSign.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <thread>

#include "common/src/util/UniqueFd.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeRuleEngine.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::edr::host {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

class LifeSignTest : public testing::Test {
 protected:
  // The rules of the sign's tag in force, id and path.
  [[nodiscard]] std::map<std::string, std::string> Rules() const { return engine_.Installed(LifeSign::kTag); }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  const std::string file_ = folder_ / LifeSign::kFileName;
  fakes::FakeRuleEngine engine_;
};

// Counts how often a file was opened for writing and closed again. The kernel makes one of two equal events that wait
// behind each other: the openings are watched too, so that a closing is never behind another one.
class WriteCount {
 public:
  explicit WriteCount(const std::string& file) : notify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    inotify_add_watch(notify_.Get(), file.c_str(), IN_OPEN | IN_CLOSE_WRITE);
  }
  bool ComesTo(int wanted) {
    pollfd ready{notify_.Get(), POLLIN, 0};
    while (count_ < wanted && poll(&ready, 1, 10'000) == 1) {
      inotify_event event{};
      while (read(notify_.Get(), &event, sizeof event) > 0) count_ += (event.mask & IN_CLOSE_WRITE) != 0 ? 1 : 0;
    }
    return count_ == wanted;
  }

 private:
  common::util::UniqueFd notify_;
  int count_ = 0;
};

TEST_F(LifeSignTest, WatchesAFileOfItsOwnAsLongAsItLives) {
  std::optional<LifeSign> sign(std::in_place, folder_.Path(), engine_);
  EXPECT_THAT(Rules(), ElementsAre(Pair(LifeSign::kRuleId, file_)));
  EXPECT_EQ(std::filesystem::status(file_).permissions(), std::filesystem::perms(0600));
  const auto rule = engine_.Calls().front().rules.front();
  EXPECT_EQ(rule->GetType(), ObjectType::File);
  EXPECT_EQ(EventTypesOf(*rule), (EventTypes{EventType::Create, EventType::Write}));
  sign.reset();
  EXPECT_THAT(Rules(), IsEmpty());
}

TEST_F(LifeSignTest, TheRuleStaysWhenOthersAreReplacedAndComesBackWithAll) {
  const LifeSign sign(folder_.Path(), engine_);
  engine_.AddRules("FIM", {});
  EXPECT_THAT(Rules(), testing::SizeIs(1));
  const std::size_t before = engine_.Calls().size();
  engine_.Invalidate();
  EXPECT_EQ(engine_.Calls().size(), before + 1);
  EXPECT_THAT(Rules(), ElementsAre(Pair(LifeSign::kRuleId, file_)));
}

TEST_F(LifeSignTest, NothingComesBackWhenItIsGone) {
  std::optional<LifeSign> sign(std::in_place, folder_.Path(), engine_);
  sign.reset();
  const std::size_t before = engine_.Calls().size();
  engine_.Invalidate();
  EXPECT_EQ(engine_.Calls().size(), before);
}

TEST_F(LifeSignTest, WithoutTheRuleThatWasToComeBackThereIsNoSign) {
  LifeSign sign(folder_.Path(), engine_);
  engine_.FailAdds("the kernel refuses");
  engine_.Invalidate();
  EXPECT_FALSE(sign.Give()) << "it would be missed";
  engine_.FailAdds("");
  EXPECT_TRUE(sign.Give());
}

TEST_F(LifeSignTest, AnotherProcessOpensTheFileForWriting) {
  LifeSign sign(folder_.Path(), engine_);
  WriteCount writes(file_);
  ASSERT_TRUE(sign.Give());
  // The program itself sees to it that there is a file; the kernel does not tell of that.
  EXPECT_TRUE(writes.ComesTo(2));
}

TEST_F(LifeSignTest, AChildThatHasEndedIsLetGoOfAtTheNextLook) {
  while (waitpid(-1, nullptr, 0) > 0) continue;  // of earlier signs
  LifeSign sign(folder_.Path(), engine_);
  ASSERT_TRUE(sign.Give());
  siginfo_t ended{};
  ASSERT_EQ(waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT), 0);
  sign.Reap();
  EXPECT_EQ(waitid(P_ALL, 0, &ended, WEXITED | WNOWAIT | WNOHANG), -1) << "it is there no more";
  EXPECT_TRUE(sign.Give());
}

TEST_F(LifeSignTest, ALookDoesNotWaitForAChildThatHangs) {
  LifeSign sign(folder_.Path(), engine_, [](const char*) { return pause(); });
  ASSERT_TRUE(sign.Give());
  sign.Reap();
  EXPECT_FALSE(sign.Give());
}

TEST_F(LifeSignTest, AFileThatWasRemovedIsMadeAgain) {
  LifeSign sign(folder_.Path(), engine_);
  std::filesystem::remove(file_);
  EXPECT_TRUE(sign.Give());
  EXPECT_TRUE(std::filesystem::exists(file_));
}

TEST_F(LifeSignTest, WithoutAFolderThereIsNoSignUntilItIsThere) {
  LifeSign sign(folder_ / "later", engine_);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Proof of life: Failed to make "));
  EXPECT_FALSE(sign.Give());
  EXPECT_THAT(Rules(), IsEmpty());
  std::filesystem::create_directory(folder_ / "later");
  EXPECT_TRUE(sign.Give());
  EXPECT_THAT(Rules(), testing::SizeIs(1));
}

TEST_F(LifeSignTest, WithoutARuleThereIsNoSignUntilItIsTaken) {
  engine_.FailAdds("the kernel refuses");
  LifeSign sign(folder_.Path(), engine_);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Proof of life: Failed to watch " + file_ + ": the kernel refuses"));
  EXPECT_FALSE(sign.Give());
  engine_.FailAdds("");
  EXPECT_TRUE(sign.Give());
}

TEST_F(LifeSignTest, ALinkInThePlaceOfTheFileIsNotFollowed) {
  const std::string other = folder_.Write("other", "of somebody else");
  std::filesystem::create_symlink(other, file_);
  LifeSign sign(folder_.Path(), engine_);
  EXPECT_FALSE(sign.Give());
}

TEST_F(LifeSignTest, APipeInThePlaceOfTheFileHoldsNobodyUp) {
  ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
  std::atomic<bool> is_given{true};
  fakes::Gate done;
  std::thread giving([&] {
    LifeSign sign(folder_.Path(), engine_);
    is_given = sign.Give();
    done.Open();
  });
  EXPECT_TRUE(done.Await());
  const common::util::UniqueFd reader(open(file_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));  // lets go who waits
  giving.join();
  EXPECT_FALSE(is_given);
}

TEST_F(LifeSignTest, AChildThatHangsIsNotAskedAgainAndEndsWithTheSign) {
  std::optional<LifeSign> sign(std::in_place, folder_.Path(), engine_, [](const char*) { return pause(); });
  ASSERT_TRUE(sign->Give());
  EXPECT_FALSE(sign->Give());
  sign.reset();
  int status = 0;
  bool is_killed = false;
  while (waitpid(-1, &status, 0) > 0) is_killed = is_killed || (WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  EXPECT_TRUE(is_killed);
}

TEST_F(LifeSignTest, KnowsTheFileByItsPathAndByTheKernelsKey) {
  const LifeSign sign(folder_.Path() + "/", engine_);
  fakes::FakeEvent by_path(EventType::Write, "Write", file_);
  EXPECT_TRUE(sign.IsSign(by_path));
  fakes::FakeEvent by_key(EventType::Write, "Write", "/by/another/way");
  by_key.audit_key = LifeSign::kRuleId;
  EXPECT_TRUE(sign.IsSign(by_key));
  EXPECT_FALSE(sign.IsSign(fakes::FakeEvent(EventType::Write, "Write", file_ + "2")));
  fakes::FakeEvent process;
  process.object_type = ObjectType::Process;
  process.audit_key = LifeSign::kRuleId;
  EXPECT_FALSE(sign.IsSign(process));
}

}  // namespace
}  // namespace zagent::edr::host
