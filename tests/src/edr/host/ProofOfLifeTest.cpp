#include "src/edr/host/ProofOfLife.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/fakes/FakeAuditNetlink.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::edr::host {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t kOwnPid = 77;

class ProofOfLifeTest : public testing::Test {
 protected:
  ProofOfLifeTest() { kernel_.consumer_pid = kOwnPid; }

  // The main loop's seconds.
  void PassSeconds(int seconds) {
    for (int i = 0; i < seconds; ++i) {
      clock_.Advance(1s);
      proof_.RunWhenDue();
    }
  }
  void PassToNextDeed() {
    const int before = deeds_;
    while (deeds_ == before) PassSeconds(1);
  }

  ProofOfLife::Ports Ports() {
    return {.touch =
                [this] {
                  if (can_touch_) ++deeds_;
                  return can_touch_;
                },
            .is_idle = [this] { return is_idle_; },
            .losses = [this] { return losses_; },
            .install_rules =
                [this] {
                  ++installs_;
                  if (!install_error_.empty()) throw std::runtime_error(install_error_);
                },
            .silence = [this](const std::string& why) { silences_.push_back(why); }};
  }

  const std::string warning_ = "Proof of life: audit is silent: ";
  fakes::LogCapture log_;
  fakes::FakeClock clock_;
  fakes::FakeAuditNetlink kernel_;
  bool can_touch_ = true;
  bool is_idle_ = true;
  std::uint64_t losses_ = 5;
  int deeds_ = 0;
  int installs_ = 0;
  std::string install_error_;
  std::vector<std::string> silences_;
  ProofOfLife proof_{Ports(), kernel_, kOwnPid, clock_};
};

TEST_F(ProofOfLifeTest, AsksOnceInTenMinutesAndIsContentWithAnAnswer) {
  PassSeconds(599);
  EXPECT_EQ(deeds_, 0);
  for (int round = 1; round <= 6; ++round) {
    PassToNextDeed();
    proof_.Heard();
  }
  EXPECT_EQ(deeds_, 6);
  PassSeconds(599);
  EXPECT_EQ(deeds_, 6);
  EXPECT_EQ(log_.Count("Proof of life: the event has come"), 6);
  EXPECT_THAT(silences_, IsEmpty());
  EXPECT_EQ(kernel_.OpenCount(), 0) << "the kernel is asked only when the event is missing";
}

TEST_F(ProofOfLifeTest, AMissingEventIsOneWarningOneWordAndOneAttemptToMendIt) {
  PassToNextDeed();
  PassSeconds(61);
  EXPECT_EQ(log_.Count(warning_), 0);
  PassSeconds(2);
  const std::string why = "no event came, though audit is on: a rule in front of the program's may hold them back";
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, warning_ + why)) << log_.All();
  EXPECT_THAT(silences_, ElementsAre(why));
  EXPECT_EQ(installs_, 1);
  PassSeconds(3600);
  EXPECT_EQ(deeds_, 7) << "it goes on asking";
  EXPECT_EQ(log_.Count(warning_), 1);
  EXPECT_THAT(silences_, ElementsAre(why));
  EXPECT_EQ(installs_, 1);
}

TEST_F(ProofOfLifeTest, AnEventThatComesEndsTheSilence) {
  PassToNextDeed();
  PassSeconds(63);
  PassToNextDeed();
  proof_.Heard();
  PassSeconds(1);
  EXPECT_EQ(silences_.back(), "");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "Proof of life: audit speaks again"));
  PassToNextDeed();
  PassSeconds(63);
  EXPECT_EQ(log_.Count(warning_), 2) << "and the next silence is told again";
}

TEST_F(ProofOfLifeTest, AnEventThatComesTooLateEndsTheSilenceAtOnce) {
  PassToNextDeed();
  PassSeconds(63);
  proof_.Heard();
  PassSeconds(1);
  EXPECT_EQ(silences_.back(), "");
  EXPECT_EQ(deeds_, 1);
}

TEST_F(ProofOfLifeTest, TimeInWhichTheIntakeIsBusyDoesNotCount) {
  PassToNextDeed();
  is_idle_ = false;
  PassSeconds(500);
  EXPECT_THAT(silences_, IsEmpty());
  is_idle_ = true;
  PassSeconds(31);
  is_idle_ = false;
  PassSeconds(5);
  is_idle_ = true;
  PassSeconds(30);
  EXPECT_THAT(silences_, IsEmpty());
  PassSeconds(3);
  EXPECT_THAT(silences_, testing::SizeIs(1));
}

TEST_F(ProofOfLifeTest, TheTimeOfTheNextDeedBeginsWithItsFirstLook) {
  PassToNextDeed();
  PassSeconds(5);
  proof_.Heard();
  PassToNextDeed();
  PassSeconds(60);
  EXPECT_EQ(kernel_.OpenCount(), 0) << "59 seconds lie between these looks";
  PassSeconds(1);
  EXPECT_EQ(kernel_.OpenCount(), 1);
}

TEST_F(ProofOfLifeTest, TimeThatNobodyWatchedHardlyCounts) {
  PassToNextDeed();
  PassSeconds(1);
  clock_.Advance(1h);  // a command that took long
  proof_.RunWhenDue();
  proof_.RunWhenDue();
  EXPECT_THAT(silences_, IsEmpty());
  proof_.Heard();
  PassSeconds(1);
  EXPECT_THAT(silences_, IsEmpty());
}

TEST_F(ProofOfLifeTest, TellsAuditThatIsOffFromALostPlaceAndFromARuleInFront) {
  const auto why_after = [this](const std::function<void()>& change) {
    change();
    PassToNextDeed();
    PassSeconds(63);
    return silences_.empty() ? "none" : silences_.back();
  };
  EXPECT_EQ(why_after([this] { kernel_.enabled = 0; }), "audit is switched off");
  kernel_.enabled = 1;
  EXPECT_EQ(why_after([this] { kernel_.consumer_pid = 0; }), "nobody receives the kernel's records");
  EXPECT_EQ(why_after([this] { kernel_.consumer_pid = 4711; }), "process 4711 receives the kernel's records");
  EXPECT_EQ(why_after([this] { kernel_.consumer_pid = kOwnPid; }),
            "no event came, though audit is on: a rule in front of the program's may hold them back");
  EXPECT_EQ(log_.Count(warning_), 4) << "another cause is another silence";
  EXPECT_EQ(installs_, 4);
}

TEST_F(ProofOfLifeTest, AnyAuditDaemonWillDoWhereOneHandsTheRecordsOn) {
  ProofOfLife dispatched(Ports(), kernel_, 0, clock_);
  kernel_.consumer_pid = 4711;
  for (int second = 0; second < 670; ++second) {
    clock_.Advance(1s);
    dispatched.RunWhenDue();
  }
  EXPECT_THAT(silences_,
              ElementsAre("no event came, though audit is on: a rule in front of the program's may hold them back"));
}

TEST_F(ProofOfLifeTest, AKernelThatDoesNotAnswerIsNotWaitedFor) {
  kernel_.answers_nothing = true;
  PassToNextDeed();
  PassSeconds(63);
  EXPECT_THAT(silences_, IsEmpty());
  PassSeconds(4);
  EXPECT_THAT(silences_, ElementsAre("no event came, and the kernel does not tell its status"));
  EXPECT_EQ(kernel_.Waits(), 0);
}

TEST_F(ProofOfLifeTest, AnEventThatComesWhileTheKernelIsAskedIsInTime) {
  kernel_.answers_nothing = true;
  PassToNextDeed();
  PassSeconds(63);
  proof_.Heard();
  PassSeconds(10);
  EXPECT_THAT(silences_, IsEmpty());
}

TEST_F(ProofOfLifeTest, AnEventThatMayHaveBeenLostWithOthersIsAskedForOnceMore) {
  PassToNextDeed();
  ++losses_;  // an overload, in which the kernel or the intake dropped something
  PassSeconds(63);
  EXPECT_EQ(deeds_, 2);
  EXPECT_THAT(silences_, IsEmpty());
  PassSeconds(63);
  EXPECT_THAT(silences_, testing::SizeIs(1)) << "nothing was lost the second time";
  EXPECT_EQ(deeds_, 2);
}

TEST_F(ProofOfLifeTest, AnOverloadThatHidTheEventIsNoSilenceWhenTheNextOneComes) {
  PassToNextDeed();
  ++losses_;
  PassSeconds(63);
  proof_.Heard();
  PassSeconds(500);
  EXPECT_EQ(deeds_, 2);
  EXPECT_THAT(silences_, IsEmpty());
}

TEST_F(ProofOfLifeTest, WithoutADeedNothingIsExpected) {
  can_touch_ = false;
  PassSeconds(1300);
  EXPECT_THAT(silences_, IsEmpty());
}

TEST_F(ProofOfLifeTest, ADeedThatCannotBeDoneIsOneWarningADay) {
  constexpr const char* kWarning = "Proof of life: there is nobody to give one: audit may fall silent unnoticed";
  const auto warnings = [&] {
    const std::vector<Poco::Message> lines = log_.Lines();
    return std::count_if(lines.begin(), lines.end(), [&](const Poco::Message& line) {
      return line.getPriority() == Poco::Message::PRIO_WARNING && line.getText().ends_with(kWarning);
    });
  };
  can_touch_ = false;
  PassSeconds(601);
  EXPECT_EQ(warnings(), 1);
  PassSeconds(86'000);
  EXPECT_EQ(warnings(), 1);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, kWarning));
  PassSeconds(1'000);
  EXPECT_EQ(warnings(), 2);
}

TEST_F(ProofOfLifeTest, RulesThatCannotBeInstalledAreLogged) {
  install_error_ = "no kernel";
  PassToNextDeed();
  PassSeconds(63);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Proof of life: Failed to install the rules anew: no kernel"));
  PassToNextDeed();
  EXPECT_EQ(deeds_, 2);
}

}  // namespace
}  // namespace zagent::edr::host
