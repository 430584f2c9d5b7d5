#include "common/src/util/HashGenerator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

#include "common/src/util/DeviceText.h"
#include "common/src/util/UniqueFd.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::common::util {
namespace {

using ::testing::HasSubstr;

constexpr const char* kEmptyMd5 = "d41d8cd98f00b204e9800998ecf8427e";
constexpr const char* kEmptySha1 = "da39a3ee5e6b4b0d3255bfef95601890afd80709";
constexpr const char* kEmptySha256 = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr const char* kAbcMd5 = "900150983cd24fb0d6963f7d28e17f72";
constexpr const char* kAbcSha1 = "a9993e364706816aba3e25717850c26c9cd0d89d";
constexpr const char* kAbcSha256 = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

std::string Hex(const std::vector<unsigned char>& digest) {
  std::string text;
  for (const unsigned char byte : digest) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", byte);
    text += digits;
  }
  return text;
}

// While it lives OpenSSL finds no digest: the file is open by the time that this turns out.
class NoDigests {
 public:
  NoDigests() { EXPECT_EQ(EVP_set_default_properties(nullptr, "provider=nobody"), 1); }
  NoDigests(const NoDigests&) = delete;
  NoDigests& operator=(const NoDigests&) = delete;
  ~NoDigests() { EXPECT_EQ(EVP_set_default_properties(nullptr, ""), 1); }
};

class HashGeneratorTest : public ::testing::Test {
 protected:
  static struct stat StatOf(const std::string& path) {
    struct stat result {};
    EXPECT_EQ(stat(path.c_str(), &result), 0);
    return result;
  }
  // Hashes the file only if it is the one with `identity`.
  static HashGenerator HashAs(const std::string& path, const struct stat& identity, HashKind kind = HashKind::All) {
    return {path, DeviceText(identity.st_dev), identity.st_ino, kind};
  }
  template <typename Call>
  static std::string ErrorOf(Call call) {
    try {
      call();
    } catch (const HashGeneratorException& error) {
      return error.what();
    }
    return "nothing thrown";
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
};

TEST_F(HashGeneratorTest, HashesAFileInAllThreeWaysAtOnce) {
  const std::string file = folder_.Write("f", "abc");
  const HashGenerator hashes = HashAs(file, StatOf(file));
  EXPECT_EQ(Hex(hashes.GetMd5()), kAbcMd5);
  EXPECT_EQ(Hex(hashes.GetSha1()), kAbcSha1);
  EXPECT_EQ(Hex(hashes.GetSha256()), kAbcSha256);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_TRACE, "Reading file content from " + file + " (Size: 3 bytes.)"));
}

TEST_F(HashGeneratorTest, GivesTheDigestsOfTheEmptyInputForAnEmptyFile) {
  const std::string file = folder_.Write("empty", "");
  const HashGenerator hashes = HashAs(file, StatOf(file));
  EXPECT_EQ(Hex(hashes.GetMd5()), kEmptyMd5);
  EXPECT_EQ(Hex(hashes.GetSha1()), kEmptySha1);
  EXPECT_EQ(Hex(hashes.GetSha256()), kEmptySha256);
}

TEST_F(HashGeneratorTest, ReadsFilesLargerThanOneChunk) {
  const std::string file = folder_.Write("large", std::string(3 * 1024 * 1024 + 17, 'x'));
  // sha256sum of 3145745 times "x".
  EXPECT_EQ(Hex(HashAs(file, StatOf(file)).GetSha256()),
            "6f82050b9ee115847382cbdec71f9269e2f842af979d1af5de548c572436c5de");
}

TEST_F(HashGeneratorTest, TouchesNoMoreOfItsBufferThanAFileFills) {
  const std::string file = folder_.Write("small", "abc");
  HashGenerator(file, "", 0, HashKind::All);  // OpenSSL sets itself up
  long faults = 0;
  // A thread that hashes for the first time has no buffer yet.
  std::thread([&] {
    rusage before{};
    rusage after{};
    ASSERT_EQ(getrusage(RUSAGE_THREAD, &before), 0);
    HashGenerator(file, "", 0, HashKind::All);
    ASSERT_EQ(getrusage(RUSAGE_THREAD, &after), 0);
    faults = after.ru_minflt - before.ru_minflt;
  }).join();
  EXPECT_LT(faults, 128) << "a buffer of 1 MiB has 256 pages";
}

TEST_F(HashGeneratorTest, ComputesOnlyTheKindThatWasAskedFor) {
  const std::string file = folder_.Write("f", "abc");
  const HashGenerator md5 = HashAs(file, StatOf(file), HashKind::Md5);
  EXPECT_EQ(Hex(md5.GetMd5()), kAbcMd5);
  EXPECT_THROW(static_cast<void>(md5.GetSha1()), HashGeneratorException);
  EXPECT_THROW(static_cast<void>(md5.GetSha256()), HashGeneratorException);
  const HashGenerator sha1 = HashAs(file, StatOf(file), HashKind::Sha1);
  EXPECT_EQ(Hex(sha1.GetSha1()), kAbcSha1);
  EXPECT_THROW(static_cast<void>(sha1.GetMd5()), HashGeneratorException);
  const HashGenerator sha256 = HashAs(file, StatOf(file), HashKind::Sha256);
  EXPECT_EQ(Hex(sha256.GetSha256()), kAbcSha256);
  EXPECT_THROW(static_cast<void>(sha256.GetMd5()), HashGeneratorException);
}

TEST_F(HashGeneratorTest, CountsItsKindsFromAllToSha256) {
  EXPECT_EQ(static_cast<int>(HashKind::All), 0);
  EXPECT_EQ(static_cast<int>(HashKind::Md5), 1);
  EXPECT_EQ(static_cast<int>(HashKind::Sha1), 2);
  EXPECT_EQ(static_cast<int>(HashKind::Sha256), 3);
}

TEST_F(HashGeneratorTest, DoesNotHashAFileThatWasReplaced) {
  const std::string file = folder_.Write("f", "abc");
  const struct stat before = StatOf(file);
  const std::string other = folder_.Write("other", "something else");
  ASSERT_EQ(std::rename(other.c_str(), file.c_str()), 0);
  const HashGenerator hashes = HashAs(file, before);
  EXPECT_EQ(ErrorOf([&] { static_cast<void>(hashes.GetMd5()); }), "MD5 for " + file + " does not exist");
  EXPECT_FALSE(log_.Has("Reading file content")) << log_.All();
}

TEST_F(HashGeneratorTest, DoesNotHashTheSameInodeNumberOnAnotherDevice) {
  const std::string file = folder_.Write("f", "abc");
  const HashGenerator hashes(file, "ff:ff", StatOf(file).st_ino, HashKind::All);
  EXPECT_THROW(static_cast<void>(hashes.GetSha256()), HashGeneratorException);
}

TEST_F(HashGeneratorTest, ChecksNeitherDeviceNorInodeWithoutADeviceText) {
  const std::string file = folder_.Write("f", "abc");
  EXPECT_EQ(Hex(HashGenerator(file, "", 1, HashKind::Md5).GetMd5()), kAbcMd5);
}

TEST_F(HashGeneratorTest, NamesTheMissingDigestAndCallsSha256ByTheNameOfSha1) {
  const std::string file = folder_.Write("f", "abc");
  const HashGenerator hashes(file, "ff:ff", 1, HashKind::All);
  EXPECT_EQ(ErrorOf([&] { static_cast<void>(hashes.GetMd5()); }), "MD5 for " + file + " does not exist");
  EXPECT_EQ(ErrorOf([&] { static_cast<void>(hashes.GetSha1()); }), "SHA1 for " + file + " does not exist");
  EXPECT_EQ(ErrorOf([&] { static_cast<void>(hashes.GetSha256()); }), "SHA1 for " + file + " does not exist");
}

TEST_F(HashGeneratorTest, HashesTheTargetOfASymbolicLink) {
  const std::string file = folder_.Write("f", "abc");
  const std::string link = folder_ / "link";
  ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
  EXPECT_EQ(Hex(HashAs(link, StatOf(file)).GetMd5()), kAbcMd5);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "Generating hash for source file for symlink " + link));
}

TEST_F(HashGeneratorTest, TellsWhyAFileCannotBeOpened) {
  const std::string file = folder_ / "missing";
  EXPECT_EQ(ErrorOf([&] { HashGenerator(file, "", 0, HashKind::All); }),
            "Failed to open file '" + file + "' for generating hashes:No such file or directory (2)");
}

TEST_F(HashGeneratorTest, NeitherWaitsForAFifoNorHashesIt) {
  const std::string fifo = folder_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const HashGenerator hashes = HashAs(fifo, StatOf(fifo));
  EXPECT_THROW(static_cast<void>(hashes.GetMd5()), HashGeneratorException);
}

TEST_F(HashGeneratorTest, DoesNotEvenOpenWhatIsNoFile) {
  const std::string fifo = folder_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const UniqueFd opens(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  ASSERT_GE(inotify_add_watch(opens.Get(), fifo.c_str(), IN_OPEN), 0);
  HashGenerator(fifo, "", 0, HashKind::All);
  inotify_event seen{};
  EXPECT_EQ(read(opens.Get(), &seen, sizeof seen), -1) << "it was opened";
}

TEST_F(HashGeneratorTest, DoesNotReadEndlessDevices) {
  const HashGenerator hashes("/dev/zero", "", 0, HashKind::All);
  EXPECT_THROW(static_cast<void>(hashes.GetSha1()), HashGeneratorException);
}

TEST_F(HashGeneratorTest, DoesNotReadProcfs) {
  struct stat status = StatOf("/proc/self/status");
  ASSERT_TRUE(S_ISREG(status.st_mode));
  const HashGenerator hashes("/proc/self/status", "", 0, HashKind::All);
  EXPECT_THROW(static_cast<void>(hashes.GetSha256()), HashGeneratorException);
}

TEST_F(HashGeneratorTest, GivesNoDigestOfAFolder) {
  const HashGenerator hashes = HashAs(folder_.Path(), StatOf(folder_.Path()));
  EXPECT_THAT(ErrorOf([&] { static_cast<void>(hashes.GetMd5()); }), HasSubstr("does not exist"));
}

TEST_F(HashGeneratorTest, GivesNoDigestOfAFileThatIsLargerThanItsReaderAllows) {
  const std::string file = folder_.Write("f", "abc");
  EXPECT_EQ(Hex(HashGenerator(file, "", 0, HashKind::Md5, nullptr, 3).GetMd5()), kAbcMd5);
  const HashGenerator refused(file, "", 0, HashKind::Md5, nullptr, 2);
  EXPECT_EQ(ErrorOf([&] { static_cast<void>(refused.GetMd5()); }), "MD5 for " + file + " does not exist");
}

TEST_F(HashGeneratorTest, ClosesItsDescriptorOnEveryPath) {
  const std::string file = folder_.Write("f", "abc");
  const int before = dup(0);
  close(before);
  HashAs(file, StatOf(file));
  HashGenerator(file, "ff:ff", 1, HashKind::All);
  HashGenerator("/dev/zero", "", 0, HashKind::All);
  {
    const NoDigests refused;
    EXPECT_THROW(HashAs(file, StatOf(file)), HashGeneratorException);
  }
  const int after = dup(0);
  close(after);
  EXPECT_EQ(after, before);
}

TEST_F(HashGeneratorTest, TellsThatADigestIsNotToBeHad) {
  const std::string file = folder_.Write("f", "abc");
  const NoDigests refused;
  EXPECT_EQ(ErrorOf([&] { HashAs(file, StatOf(file)); }), "Failed to initialize hash contexts for " + file);
}

}  // namespace
}  // namespace zagent::common::util
