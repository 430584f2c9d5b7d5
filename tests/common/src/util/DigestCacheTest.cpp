#include "common/src/util/DigestCache.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <thread>

#include "common/src/util/DeviceText.h"
#include "common/src/util/HashGenerator.h"
#include "common/src/util/UniqueFd.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common::util {
namespace {

using namespace std::chrono_literals;

using Bytes = std::vector<unsigned char>;

struct stat StatOf(const std::string& path) {
  struct stat result {};
  EXPECT_EQ(stat(path.c_str(), &result), 0);
  return result;
}

Clock::SystemTime ChangeTimeOf(const struct stat& file) {
  return Clock::SystemTime(std::chrono::seconds(file.st_ctim.tv_sec) + std::chrono::nanoseconds(file.st_ctim.tv_nsec));
}

// Writes `text` over the start of the file until the file system's clock has ticked, so that the write can be told.
void Overwrite(const std::string& path, const std::string& text) {
  const Clock::SystemTime before = ChangeTimeOf(StatOf(path));
  const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  do {
    ASSERT_EQ(pwrite(fd.Get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  } while (ChangeTimeOf(StatOf(path)) == before);
}

// Stands still, and does something each time that it is looked at.
class InterruptingClock final : public Clock {
 public:
  InterruptingClock(SystemTime now, std::function<void()> interrupt) : now_(now), interrupt_(std::move(interrupt)) {}
  [[nodiscard]] SystemTime Now() const override {
    interrupt_();
    return now_;
  }
  [[nodiscard]] SteadyTime SteadyNow() const override { return {}; }
  bool WaitUntil(std::condition_variable& /*condition*/, std::unique_lock<std::mutex>& /*lock*/,
                 SystemTime /*deadline*/, const std::function<bool()>& predicate) override {
    return predicate();
  }

 private:
  SystemTime now_;
  std::function<void()> interrupt_;
};

class DigestCacheTest : public ::testing::Test {
 protected:
  // A state of no real file.
  static struct stat State(ino_t inode, off_t size = 10, time_t changed_s = 100, long changed_ns = 5) {
    struct stat state {};
    state.st_dev = 1;
    state.st_ino = inode;
    state.st_size = size;
    state.st_ctim = {changed_s, changed_ns};
    return state;
  }
  static FileDigests Known(unsigned char byte) { return {Bytes(16, byte), Bytes(20, byte), Bytes(32, byte)}; }

  HashGenerator Hash(const std::string& path, HashKind kind = HashKind::All) {
    const struct stat identity = StatOf(path);
    return {path, DeviceText(identity.st_dev), identity.st_ino, kind, &cache_};
  }
  [[nodiscard]] int ReadsOf(const std::string& path) const {
    return log_.Count("Reading file content from " + path + " ");
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  // A minute ahead: every file that a test writes counts as settled.
  fakes::FakeClock clock_{std::chrono::system_clock::now() + 1min};
  DigestCache cache_{clock_};
};

TEST_F(DigestCacheTest, ReadsASettledFileOnceForAllEventsThatNameIt) {
  const std::string file = folder_.Write("f", "abc");
  const HashGenerator first = Hash(file);
  const HashGenerator second = Hash(file);
  EXPECT_EQ(ReadsOf(file), 1) << log_.All();
  EXPECT_EQ(second.GetMd5(), first.GetMd5());
  EXPECT_EQ(second.GetSha1(), first.GetSha1());
  EXPECT_EQ(second.GetSha256(), first.GetSha256());
  EXPECT_EQ(second.GetSha256(), HashGenerator(file, "", 0, HashKind::Sha256).GetSha256());
}

TEST_F(DigestCacheTest, DoesNotOpenAFileWhoseStateItKnows) {
  const std::string file = folder_.Write("f", "abc");
  const Bytes digest = Hash(file).GetSha256();
  const UniqueFd watch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  ASSERT_GE(inotify_add_watch(watch.Get(), file.c_str(), IN_OPEN), 0);
  char told[256];
  EXPECT_EQ(Hash(file).GetSha256(), digest);
  EXPECT_EQ(read(watch.Get(), told, sizeof told), -1);

  Hash(folder_.Write("g", "abc"));  // the next one is new
  Overwrite(file, "xyz");
  while (read(watch.Get(), told, sizeof told) > 0) {
  }
  Hash(file);
  EXPECT_GT(read(watch.Get(), told, sizeof told), 0);
}

TEST_F(DigestCacheTest, TellsOfALinkEachTimeThatItIsFollowed) {
  const std::string file = folder_.Write("f", "abc");
  const std::string link = folder_ / "link";
  ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
  EXPECT_EQ(Hash(link).GetMd5(), Hash(link).GetMd5());
  EXPECT_EQ(log_.Count("Generating hash for source file for symlink " + link), 2);
  EXPECT_EQ(ReadsOf(link), 1);
}

TEST_F(DigestCacheTest, HasNoDigestsOfAKnownFileThatIsLargerThanItsReaderAllows) {
  const std::string file = folder_.Write("f", "abc");
  Hash(file);
  const struct stat identity = StatOf(file);
  const HashGenerator hashes(file, DeviceText(identity.st_dev), identity.st_ino, HashKind::All, &cache_, 2);
  EXPECT_THROW(static_cast<void>(hashes.GetMd5()), HashGeneratorException);
}

TEST_F(DigestCacheTest, KeepsTypesBesideDigests) {
  EXPECT_EQ(cache_.FindType(State(7)), "");
  cache_.KeepType(State(7), "ASCII text");
  cache_.Keep(State(7), Known(1));
  EXPECT_EQ(cache_.FindType(State(7)), "ASCII text");
  EXPECT_EQ(cache_.Find(State(7)), Known(1));
  EXPECT_EQ(cache_.FindType(State(8)), "");
  for (ino_t inode = 100; inode < 100 + DigestCache::kMaxEntries; ++inode) cache_.KeepType(State(inode), "data");
  EXPECT_EQ(cache_.FindType(State(7)), "") << "a type takes a place as digests do";
}

TEST_F(DigestCacheTest, ReadsAFileAgainAfterAWriteThatLeftItsSize) {
  const std::string file = folder_.Write("f", "abc");
  const Bytes before = Hash(file).GetMd5();
  Overwrite(file, "xyz");
  EXPECT_NE(Hash(file).GetMd5(), before);
  EXPECT_EQ(ReadsOf(file), 2);
}

TEST_F(DigestCacheTest, KnowsAFileUnderEachOfItsNames) {
  const std::string file = folder_.Write("f", "abc");
  const std::string other_name = folder_ / "g";
  ASSERT_EQ(link(file.c_str(), other_name.c_str()), 0);
  const Bytes digest = Hash(file).GetSha1();
  EXPECT_EQ(Hash(other_name).GetSha1(), digest);
  EXPECT_EQ(ReadsOf(file) + ReadsOf(other_name), 1);
}

TEST_F(DigestCacheTest, TrustsAChangeTimeOnlyWhenItIsMoreThanASecondOld) {
  const std::string file = folder_.Write("f", "abc");
  const Clock::SystemTime changed = ChangeTimeOf(StatOf(file));

  fakes::FakeClock clock(changed + 1s);
  DigestCache cache(clock);
  HashGenerator(file, "", 0, HashKind::All, &cache);
  HashGenerator(file, "", 0, HashKind::All, &cache);
  EXPECT_EQ(ReadsOf(file), 2);

  clock.Advance(1ns);
  HashGenerator(file, "", 0, HashKind::All, &cache);
  HashGenerator(file, "", 0, HashKind::All, &cache);
  EXPECT_EQ(ReadsOf(file), 3) << "the third reading is kept";
}

TEST_F(DigestCacheTest, DoesNotTrustAChangeTimeInTheFuture) {
  const std::string file = folder_.Write("f", "abc");
  fakes::FakeClock clock(ChangeTimeOf(StatOf(file)) - 1h);  // a clock that was set back
  DigestCache cache(clock);
  HashGenerator(file, "", 0, HashKind::All, &cache);
  HashGenerator(file, "", 0, HashKind::All, &cache);
  EXPECT_EQ(ReadsOf(file), 2);
}

TEST_F(DigestCacheTest, DoesNotKeepWhatWasReadWhileTheFileChanged) {
  const std::string file = folder_.Write("f", "abc");
  // The cache looks at the clock once the file's state was taken and before it is read.
  InterruptingClock clock(std::chrono::system_clock::now() + 1min, [&] { Overwrite(file, "xyz"); });
  DigestCache cache(clock);
  const struct stat before = StatOf(file);
  const Bytes read = HashGenerator(file, "", 0, HashKind::Md5, &cache).GetMd5();
  EXPECT_EQ(read, HashGenerator(file, "", 0, HashKind::Md5).GetMd5()) << "what was read is what was answered";
  EXPECT_TRUE(cache.Find(before).md5.empty());
  EXPECT_TRUE(cache.Find(StatOf(file)).md5.empty());
}

TEST_F(DigestCacheTest, ReadsAFileThatGrowsNoFurtherThanItWentAtFirst) {
  const std::string file = folder_.Write("f", "abc");
  InterruptingClock clock(std::chrono::system_clock::now() + 1min, [&] { Overwrite(file, "abcdef"); });
  DigestCache cache(clock);
  const Bytes read = HashGenerator(file, "", 0, HashKind::Md5, &cache).GetMd5();
  EXPECT_EQ(read, HashGenerator(folder_.Write("g", "abc"), "", 0, HashKind::Md5).GetMd5());
}

TEST_F(DigestCacheTest, ReadsAFileThatShrinksToItsNewEnd) {
  const std::string file = folder_.Write("f", "abc");
  InterruptingClock clock(std::chrono::system_clock::now() + 1min, [&] { ASSERT_EQ(truncate(file.c_str(), 1), 0); });
  DigestCache cache(clock);
  const Bytes read = HashGenerator(file, "", 0, HashKind::Md5, &cache).GetMd5();
  EXPECT_EQ(read, HashGenerator(folder_.Write("g", "a"), "", 0, HashKind::Md5).GetMd5());
}

TEST_F(DigestCacheTest, HasNoDigestOfAFileThatSeemedEmptyAndIsNot) {
  const std::string file = folder_.Write("f", "");
  InterruptingClock clock(std::chrono::system_clock::now() + 1min, [&] { Overwrite(file, "xyz"); });
  DigestCache cache(clock);
  const HashGenerator hashes(file, "", 0, HashKind::All, &cache);
  EXPECT_THROW(static_cast<void>(hashes.GetMd5()), HashGeneratorException);
}

TEST_F(DigestCacheTest, GivesNoDigestsOfAnotherFileInTheEventsPlace) {
  const std::string file = folder_.Write("f", "abc");
  const struct stat of_the_event = StatOf(file);
  const std::string other = folder_.Write("other", "something else");
  Hash(other);
  ASSERT_EQ(std::rename(other.c_str(), file.c_str()), 0);
  Hash(file);
  const HashGenerator hashes(file, DeviceText(of_the_event.st_dev), of_the_event.st_ino, HashKind::All, &cache_);
  EXPECT_THROW(static_cast<void>(hashes.GetMd5()), HashGeneratorException);
}

TEST_F(DigestCacheTest, AnswersOnlyTheKindThatWasAskedForAlsoWhenItKnowsMore) {
  const std::string file = folder_.Write("f", "abc");
  const Bytes sha256 = Hash(file).GetSha256();
  const HashGenerator one = Hash(file, HashKind::Sha256);
  EXPECT_EQ(one.GetSha256(), sha256);
  EXPECT_THROW(static_cast<void>(one.GetMd5()), HashGeneratorException);
  EXPECT_EQ(ReadsOf(file), 1);
}

TEST_F(DigestCacheTest, ReadsAFileAgainForADigestThatIsNotKnownYet) {
  const std::string file = folder_.Write("f", "abc");
  Hash(file, HashKind::Sha256);
  const HashGenerator all = Hash(file);
  EXPECT_EQ(all.GetMd5(), HashGenerator(file, "", 0, HashKind::Md5).GetMd5());
  Hash(file, HashKind::Sha1);
  Hash(file, HashKind::Sha256);
  EXPECT_EQ(ReadsOf(file), 3) << "for SHA-256, for all, and the one without a cache";
}

TEST_F(DigestCacheTest, CollectsTheDigestsThatWereAskedForOneByOne) {
  const std::string file = folder_.Write("f", "abc");
  for (const HashKind kind : {HashKind::Md5, HashKind::Sha1, HashKind::Sha256}) Hash(file, kind);
  const HashGenerator all = Hash(file);
  EXPECT_EQ(ReadsOf(file), 3);
  EXPECT_EQ(all.GetMd5().size() + all.GetSha1().size() + all.GetSha256().size(), 16U + 20U + 32U);
}

TEST_F(DigestCacheTest, TellsStatesApartByEachOfTheirParts) {
  struct stat other_device = State(7);
  other_device.st_dev = 2;
  cache_.Keep(State(7), Known(1));
  for (const struct stat& other : {State(8), State(7, 11), State(7, 10, 101), State(7, 10, 100, 6), other_device}) {
    EXPECT_TRUE(cache_.Find(other).md5.empty());
    EXPECT_FALSE(FileState(State(7)) == FileState(other));
  }
  EXPECT_EQ(cache_.Find(State(7)), Known(1));
  EXPECT_TRUE(FileState(State(7)) == FileState(State(7)));
}

TEST_F(DigestCacheTest, ForgetsTheOldestStateAtItsBound) {
  for (ino_t inode = 0; inode < DigestCache::kMaxEntries; ++inode) cache_.Keep(State(inode), Known(1));
  cache_.Keep(State(0), Known(2));  // known already: costs nobody its place
  EXPECT_EQ(cache_.Find(State(1)), Known(1));
  EXPECT_EQ(cache_.Find(State(0)), Known(2));

  cache_.Keep(State(DigestCache::kMaxEntries), {});  // nor does what has no digest
  EXPECT_EQ(cache_.Find(State(0)), Known(2));
  cache_.Keep(State(DigestCache::kMaxEntries), Known(3));
  EXPECT_TRUE(cache_.Find(State(0)).md5.empty());
  EXPECT_EQ(cache_.Find(State(1)), Known(1));
  EXPECT_EQ(cache_.Find(State(DigestCache::kMaxEntries)), Known(3));
}

TEST_F(DigestCacheTest, AddsWhatIsNewToWhatItKnows) {
  cache_.Keep(State(7), {.md5 = Bytes(16, 1), .sha1 = {}, .sha256 = {}});
  cache_.Keep(State(7), {.md5 = {}, .sha1 = Bytes(20, 2), .sha256 = {}});
  cache_.Keep(State(7), {.md5 = {}, .sha1 = Bytes(19, 3), .sha256 = Bytes(33, 3)});  // are none
  EXPECT_EQ(cache_.Find(State(7)), (FileDigests{.md5 = Bytes(16, 1), .sha1 = Bytes(20, 2), .sha256 = {}}));
}

TEST_F(DigestCacheTest, ServesSeveralThreadsAtOnce) {
  constexpr int kThreads = 4;
  constexpr ino_t kStates = 2 * DigestCache::kMaxEntries;  // so that all of them also push each other's entries out
  std::vector<std::thread> threads;
  std::vector<int> wrong(kThreads, 0);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (ino_t inode = 0; inode < kStates; ++inode) {
        const auto byte = static_cast<unsigned char>(inode);
        cache_.Keep(State(inode), Known(byte));
        const FileDigests known = cache_.Find(State(inode));
        if (!known.md5.empty() && !(known == Known(byte))) ++wrong[static_cast<std::size_t>(thread)];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(kThreads, 0));
  EXPECT_EQ(cache_.Find(State(kStates - 1)), Known(static_cast<unsigned char>(kStates - 1)));
}

}  // namespace
}  // namespace zagent::common::util
