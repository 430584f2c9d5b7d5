#include "common/src/util/Log.h"

#include <Poco/Exception.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::fim {
const std::string& LogPrefix() {
  static const std::string prefix = "[FIM]: ";
  return prefix;
}
void WriteLine() {
  ZLOG_INFO("of a component");
}
}  // namespace zagent::fim

namespace zagent::common::util {
namespace {

std::string Properties(const std::string& file, const std::string& level) {
  return "logging.loggers.root.channel = out\n"
         "logging.loggers.root.level = information\n"
         "logging.loggers.l0.name = edr\n"
         "logging.loggers.l0.level = " +
         level +
         "\n"
         "logging.loggers.l1.name = edr_events\n"
         "logging.loggers.l1.level = information\n"
         "logging.channels.out.class = FileChannel\n"
         "logging.channels.out.path = " +
         file +
         "\n"
         "logging.channels.out.formatter = plain\n"
         "logging.formatters.plain.class = PatternFormatter\n"
         "logging.formatters.plain.pattern = %t\n";
}

class LogTest : public testing::Test {
 protected:
  // Logging is set up once a process: what does it runs in one of its own, which hands its failures to the test.
  static void InOwnProcess(const std::function<void()>& story) {
    const pid_t child = fork();
    if (child == 0) {
      story();
      _exit(HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }

  fakes::TempFolder folder_;
};

TEST_F(LogTest, BeforeInitTheLoggerIsEdr) {
  EXPECT_EQ(Log::Get().name(), "edr");
}

TEST_F(LogTest, CreatesAMissingLogFolderAtInitNotAtTheFirstWrite) {
  InOwnProcess([this] {
    const std::string config = folder_.Write("log.properties", Properties(folder_ / "a/b/edr.log", "debug"));
    Log::Init("edr", config);
    struct stat info {};
    ASSERT_EQ(stat((folder_ / "a/b").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0700U);
    EXPECT_FALSE(std::filesystem::exists(folder_ / "a/b/edr.log"));
    ZLOG_DEBUG("first line");
    EXPECT_NE(folder_.Read("a/b/edr.log").find("first line"), std::string::npos);
  });
}

TEST_F(LogTest, ASecondInitThrows) {
  InOwnProcess([this] {
    const std::string config = folder_.Write("log.properties", Properties(folder_ / "edr.log", "debug"));
    Log::Init("edr", config);
    try {
      Log::Init("edr", config);
      ADD_FAILURE();
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ(error.what(), "Logger is already initialized");
    }
  });
}

TEST_F(LogTest, AMissingFileAndALoggerWithoutAChannelThrow) {
  InOwnProcess([this] {
    EXPECT_THROW(Log::Init("edr", folder_ / "none"), Poco::FileNotFoundException);
    const std::string no_root = folder_.Write("log.properties", "logging.loggers.l0.name = edr\n");
    EXPECT_THROW(Log::Init("edr", no_root), Poco::NullPointerException);
  });
}

TEST_F(LogTest, ReloadAppliesNewLevelsAndPassesOverUnknownLoggers) {
  InOwnProcess([this] {
    const std::string config = folder_.Write("log.properties", Properties(folder_ / "edr.log", "information"));
    Log::Init("edr", config);
    EXPECT_FALSE(Log::IsEnabled(Poco::Message::PRIO_TRACE));
    folder_.Write("log.properties",
                  "logging.loggers.l0.name = stranger\nlogging.loggers.l0.level = debug\n"
                  "logging.loggers.l1.name = edr\nlogging.loggers.l1.level = trace\n");
    Log::Reload(config);
    EXPECT_TRUE(Log::IsEnabled(Poco::Message::PRIO_TRACE));
    const std::string log = folder_.Read("edr.log");
    EXPECT_NE(log.find("Ignoring unknown logger stranger"), std::string::npos) << log;
    EXPECT_NE(log.find("Updating log level to trace"), std::string::npos) << log;
  });
}

TEST_F(LogTest, ReloadEndsItsWalkAtAnIndexThatLacksNameOrLevel) {
  InOwnProcess([this] {
    const std::string config = folder_.Write("log.properties", Properties(folder_ / "edr.log", "information"));
    Log::Init("edr", config);
    folder_.Write("log.properties", "logging.loggers.l1.name = edr\nlogging.loggers.l1.level = trace\n");
    Log::Reload(config);
    EXPECT_FALSE(Log::IsEnabled(Poco::Message::PRIO_TRACE));
  });
}

TEST_F(LogTest, ReloadLetsABadLevelThrough) {
  InOwnProcess([this] {
    const std::string config = folder_.Write("log.properties", Properties(folder_ / "edr.log", "information"));
    Log::Init("edr", config);
    folder_.Write("log.properties", "logging.loggers.l0.name = edr\nlogging.loggers.l0.level = loud\n");
    EXPECT_THROW(Log::Reload(config), Poco::InvalidArgumentException);
  });
}

TEST_F(LogTest, ALogFolderThatVanishedEndsNothing) {
  InOwnProcess([this] {
    const std::string config = folder_.Write("log.properties", Properties(folder_ / "gone/edr.log", "information"));
    Log::Init("edr", config);
    std::filesystem::remove_all(folder_ / "gone");
    EXPECT_NO_THROW(ZLOG_ERROR("nobody hears this"));
  });
}

TEST_F(LogTest, WhatIsSaidBeforeInitStandsInTheLogBehindIt) {
  InOwnProcess([this] {
    {
      const fakes::LogCapture poco;
      Log::HoldUntilInit();
      std::thread([] {
        ZLOG_INFO("first of another thread");
        ZLOG_DEBUG("below the level to come");
        ZLOG_ERROR("a line\nend");
      }).join();
      EXPECT_TRUE(poco.Lines().empty()) << poco.All();
    }
    EXPECT_THROW(Log::Init("edr", folder_ / "none"), Poco::FileNotFoundException);
    Log::Init("edr", folder_.Write("log.properties", Properties(folder_ / "edr.log", "information")));
    ZLOG_INFO("behind Init");
    const std::string log = folder_.Read("edr.log");
    const std::size_t first = log.find("]: first of another thread\n");
    const std::size_t second = log.find("]: a line\\x0aend\n");
    const std::size_t third = log.find("]: behind Init\n");
    EXPECT_LT(first, second) << log;
    EXPECT_LT(second, third) << log;
    EXPECT_LT(third, log.size()) << log;
    EXPECT_EQ(log.find("below the level"), std::string::npos) << log;
  });
}

TEST_F(LogTest, AThreadThatLogsDuringInitLosesNoLineAndNoOrder) {
  InOwnProcess([this] {
    const std::string config = folder_.Write("log.properties", Properties(folder_ / "edr.log", "information"));
    Log::HoldUntilInit();
    std::atomic<int> said{0};
    std::atomic<bool> initialized{false};
    std::thread other([&] {
      // Never more than can be held, until Init has returned.
      while (!initialized || said < 20) {
        if (initialized || said < static_cast<int>(Log::kMaxHeldLines)) ZLOG_INFO("line " << said++ << ".");
      }
    });
    while (said < 10) std::this_thread::yield();
    Log::Init("edr", config);
    initialized = true;
    other.join();
    const std::string log = folder_.Read("edr.log");
    std::size_t at = 0;
    for (int line = 0; line < said; ++line) {
      const std::size_t found = log.find("]: line " + std::to_string(line) + ".\n", at);
      ASSERT_NE(found, std::string::npos) << line;
      at = found;
    }
  });
}

TEST_F(LogTest, WhatIsHeldCanBeTakenWhereThereIsNoInit) {
  InOwnProcess([] {
    Log::HoldUntilInit();
    ZLOG_ERROR("a refusal");
    ZLOG_DEBUG("its cause");
    const std::vector<Poco::Message> held = Log::TakeHeld();
    ASSERT_EQ(held.size(), 2U);
    EXPECT_EQ(held[0].getPriority(), Poco::Message::PRIO_ERROR);
    EXPECT_TRUE(held[0].getText().ends_with("]: a refusal"));
    EXPECT_TRUE(held[1].getText().ends_with("]: its cause"));
    ZLOG_ERROR("is held no more");
    EXPECT_TRUE(Log::TakeHeld().empty());
  });
}

TEST_F(LogTest, HoldsNoMoreThanItsBound) {
  InOwnProcess([this] {
    Log::HoldUntilInit();
    for (std::size_t i = 0; i <= Log::kMaxHeldLines; ++i) ZLOG_INFO("held " << i << ".");
    Log::Init("edr", folder_.Write("log.properties", Properties(folder_ / "edr.log", "information")));
    const std::string log = folder_.Read("edr.log");
    EXPECT_NE(log.find("held " + std::to_string(Log::kMaxHeldLines - 1) + "."), std::string::npos);
    EXPECT_EQ(log.find("held " + std::to_string(Log::kMaxHeldLines) + "."), std::string::npos);
  });
}

TEST_F(LogTest, LinesBeginWithTheThreadIdAndComponentLinesWithTheirTag) {
  const fakes::LogCapture log;
  ZLOG_INFO("of the house");
  fim::WriteLine();
  ASSERT_EQ(log.Lines().size(), 2U);
  EXPECT_EQ(log.Lines()[0].getText(), "[" + std::to_string(gettid()) + "]: of the house");
  EXPECT_EQ(log.Lines()[1].getText(), "[FIM]: of a component");
}

TEST_F(LogTest, AControlByteCannotForgeALineNorSteerATerminal) {
  const fakes::LogCapture log;
  ZLOG_INFO("/tmp/a\nError: edr: forged\x1b[2J\x7f/ä");
  ASSERT_EQ(log.Lines().size(), 1U);
  EXPECT_NE(log.Lines()[0].getText().find("/tmp/a\\x0aError: edr: forged\\x1b[2J\\x7f/ä"), std::string::npos)
      << log.All();
}

TEST_F(LogTest, BelowTheLevelArgumentsAreNotEvaluated) {
  Log::Get().setLevel(Poco::Message::PRIO_INFORMATION);
  bool evaluated = false;
  ZLOG_DEBUG((evaluated = true));
  EXPECT_FALSE(evaluated);
}

TEST_F(LogTest, NamesThePriorities) {
  EXPECT_EQ(Log::PriorityName(1), "fatal");
  EXPECT_EQ(Log::PriorityName(6), "information");
  EXPECT_EQ(Log::PriorityName(8), "trace");
  EXPECT_EQ(Log::PriorityName(0), "");
  EXPECT_EQ(Log::PriorityName(9), "");
}

}  // namespace
}  // namespace zagent::common::util
