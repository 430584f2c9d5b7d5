#include "src/edr/LibMagicWrapper.h"

#include <gtest/gtest.h>
#include <magic.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>
#include <vector>

#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::edr {
namespace {

std::string HostDatabase() {
  for (const char* path : {"/usr/share/misc/magic.mgc", "/usr/lib/file/magic.mgc"}) {
    if (std::filesystem::exists(path)) return path;
  }
  return "libmagic-mgc is not installed";
}

// A wrapper that was never opened, as substitutes in tests are.
class Unopened final : public LibMagicWrapper {};

class LibMagicWrapperTest : public ::testing::Test {
 protected:
  fakes::LogCapture log_;
  fakes::TempFolder folder_;
};

TEST_F(LibMagicWrapperTest, IdentifiesFilesByTheirContent) {
  LibMagicWrapper magic(HostDatabase(), MAGIC_ERROR);
  const std::string script = folder_.Write("script", "#!/bin/sh\necho hello\n");
  const std::optional<std::string> text = magic.Identify(script);
  ASSERT_TRUE(text.has_value());
  EXPECT_EQ(*text, "POSIX shell script, ASCII text executable");
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_TRACE, "File type text identified by lib magic: " + *text + " for file: " + script));
}

TEST_F(LibMagicWrapperTest, TheDatabaseIsTheAgentsOwn) {
  EXPECT_STREQ(LibMagicWrapper::kDefaultDatabase, "/etc/ostrel/host-warden/magic.mgc");
}

TEST_F(LibMagicWrapperTest, SaysWhichDatabaseItLoadsAndCountsTheLoads) {
  LibMagicWrapper magic(HostDatabase(), MAGIC_ERROR);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Loading magic DB from path: " + HostDatabase()));
  EXPECT_TRUE(log_.Has("Successfully loaded magic DB: " + HostDatabase()));
  EXPECT_EQ(magic.GetLoadCount(), 1U);
  magic.Reload();
  EXPECT_EQ(magic.GetLoadCount(), 2U);
  EXPECT_TRUE(log_.Has("Successfully Re-loaded magic DB: " + HostDatabase()));
  EXPECT_TRUE(magic.Identify(folder_.Write("f", "text\n")).has_value());
}

TEST_F(LibMagicWrapperTest, FailsWithTheLibrarysWordsForAMissingDatabase) {
  const std::string missing = folder_ / "none.mgc";
  try {
    LibMagicWrapper magic(missing, MAGIC_ERROR);
    FAIL() << "loaded nothing";
  } catch (const LibMagicException& error) {
    EXPECT_STREQ(error.what(), "could not find any valid magic files!");
  }
}

TEST_F(LibMagicWrapperTest, KeepsRunningWhenTheDatabaseIsGoneAtAReload) {
  const std::string copy = folder_ / "copy.mgc";
  std::filesystem::copy_file(std::filesystem::canonical(HostDatabase()), copy);
  LibMagicWrapper magic(copy, MAGIC_ERROR);
  std::filesystem::remove(copy);
  EXPECT_THROW(magic.Reload(), LibMagicException);
  EXPECT_EQ(magic.GetLoadCount(), 1U);
  // Whatever the library still knows: it answers or declines, and never falls over.
  EXPECT_NO_THROW(magic.Identify(folder_.Write("f", "text\n")));
}

TEST_F(LibMagicWrapperTest, AnswersNothingForAMissingFileAndLogsWhy) {
  LibMagicWrapper magic(HostDatabase(), MAGIC_ERROR);
  const std::string missing = folder_ / "missing";
  EXPECT_FALSE(magic.Identify(missing).has_value());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "Error magic_file: " + missing + " error: ")) << log_.All();
}

TEST_F(LibMagicWrapperTest, CutsLongDescriptionsAt255Characters) {
  // One line of a database describes at most 63 characters; its continuations go on.
  const std::string words(50, 'x');
  std::string rules = "0\tstring\tostrelmagic\t" + words + "\n";
  for (int line = 0; line < 9; ++line) rules += ">0\tstring\tostrelmagic\t" + words + "\n";
  LibMagicWrapper magic(folder_.Write("rules", rules), MAGIC_ERROR);
  const std::optional<std::string> text = magic.Identify(folder_.Write("f", "ostrelmagic\n"));
  ASSERT_TRUE(text.has_value());
  EXPECT_EQ(text->size(), 255U);
}

TEST_F(LibMagicWrapperTest, DoesNotWaitForAFifo) {
  LibMagicWrapper magic(HostDatabase(), MAGIC_ERROR);
  const std::string fifo = folder_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(magic.Identify(fifo), "fifo (named pipe)");
}

TEST_F(LibMagicWrapperTest, RefusesToAnswerWithoutAHandle) {
  Unopened magic;
  try {
    static_cast<void>(magic.Identify("/etc/passwd"));
    FAIL() << "identified without libmagic";
  } catch (const LibMagicException& error) {
    EXPECT_STREQ(error.what(), "Magic Set struct not initialized");
  }
  EXPECT_THROW(magic.Reload(), LibMagicException);
}

TEST_F(LibMagicWrapperTest, GivesEachThreadTheAnswerToItsOwnQuestion) {
  LibMagicWrapper magic(HostDatabase(), MAGIC_ERROR);
  const std::string script = folder_.Write("script", "#!/bin/sh\necho hello\n");
  const std::string empty = folder_.Write("empty", "");
  const auto ask = [&magic](const std::string& file, const std::string& expected) {
    for (int round = 0; round < 200; ++round) EXPECT_EQ(magic.Identify(file), expected);
  };
  std::thread other(ask, script, "POSIX shell script, ASCII text executable");
  ask(empty, "empty");
  other.join();
}

}  // namespace
}  // namespace zagent::edr
