#include "src/audit/events/FolderIdentities.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tests/fakes/FakeClock.h"

namespace zagent::audit::internal {
namespace {

constexpr std::uint64_t kDisk = 0x801;

FileIdentity Folder(std::uint64_t inode) {
  return {kDisk, inode};
}

class FolderIdentitiesTest : public ::testing::Test {
 protected:
  std::string PathOf(std::uint64_t inode) { return folders_.PathOf(Folder(inode)).value_or("unknown"); }
  std::uint64_t At(const std::string& path) { return folders_.FolderAt(path).value_or(FileIdentity{}).inode; }

  FolderIdentities folders_;
};

TEST_F(FolderIdentitiesTest, KnowsNothingAtFirst) {
  EXPECT_EQ(PathOf(10), "unknown");
  EXPECT_EQ(At("/srv"), 0U);
  EXPECT_EQ(At("/"), 0U);
}

TEST_F(FolderIdentitiesTest, FindsAFolderByItsIdentityAndByItsPath) {
  folders_.Learn(Folder(10), "/srv/data");
  EXPECT_EQ(PathOf(10), "/srv/data");
  EXPECT_EQ(At("/srv/data"), 10U);
  EXPECT_EQ(At("/srv"), 0U) << "known by name only";
  EXPECT_EQ(At("/srv/dat"), 0U);
  EXPECT_EQ(At("/srv/data/more"), 0U);
  folders_.Learn(Folder(2), "/");
  EXPECT_EQ(PathOf(2), "/");
}

TEST_F(FolderIdentitiesTest, TellsEqualInodesOfTwoFileSystemsApart) {
  folders_.Learn({1, 2}, "/a");
  folders_.Learn({2, 2}, "/b");
  EXPECT_EQ(folders_.PathOf({1, 2}), "/a");
  EXPECT_EQ(folders_.PathOf({2, 2}), "/b");
}

TEST_F(FolderIdentitiesTest, ARenamedFolderTakesAllBelowItAlong) {
  folders_.Learn(Folder(10), "/srv/data");
  folders_.Learn(Folder(11), "/srv/data/a");
  folders_.Learn(Folder(12), "/srv/data/a/b");
  folders_.Learn(Folder(13), "/srv/database");
  folders_.Rename(Folder(10), "/srv/data", "/mnt/old data");
  EXPECT_EQ(PathOf(10), "/mnt/old data");
  EXPECT_EQ(PathOf(11), "/mnt/old data/a");
  EXPECT_EQ(PathOf(12), "/mnt/old data/a/b");
  EXPECT_EQ(PathOf(13), "/srv/database");
  EXPECT_EQ(At("/srv/data"), 0U);
  EXPECT_EQ(At("/srv/data/a"), 0U);
  EXPECT_EQ(At("/mnt/old data/a/b"), 12U);
}

TEST_F(FolderIdentitiesTest, ARenameNamesAFolderThatWasKnownByNameOnly) {
  folders_.Learn(Folder(12), "/srv/data/b");
  folders_.Rename(Folder(10), "/srv/data", "/srv/moved");
  EXPECT_EQ(PathOf(10), "/srv/moved");
  EXPECT_EQ(PathOf(12), "/srv/moved/b");
}

TEST_F(FolderIdentitiesTest, ARenameOfAnUnknownFolderTeachesItsNewPath) {
  folders_.Rename(Folder(10), "/srv/data", "/srv/moved");
  EXPECT_EQ(PathOf(10), "/srv/moved");
}

TEST_F(FolderIdentitiesTest, ARenameShowsThatAnotherFolderWasNotThereAnyMore) {
  folders_.Learn(Folder(10), "/srv/data");
  folders_.Learn(Folder(11), "/srv/data/sub");
  folders_.Rename(Folder(20), "/srv/data", "/srv/moved");
  EXPECT_EQ(PathOf(20), "/srv/moved");
  EXPECT_EQ(PathOf(10), "unknown");
  EXPECT_EQ(PathOf(11), "unknown");
}

TEST_F(FolderIdentitiesTest, ARenameOverAnEmptyFolderEndsThatOne) {
  folders_.Learn(Folder(10), "/srv/new");
  folders_.Learn(Folder(11), "/srv/old");
  folders_.Rename(Folder(10), "/srv/new", "/srv/old");
  EXPECT_EQ(PathOf(10), "/srv/old");
  EXPECT_EQ(PathOf(11), "unknown");
}

TEST_F(FolderIdentitiesTest, ARenameOntoAFolderWithContentIsHalfOfAnExchange) {
  folders_.Learn(Folder(10), "/srv/a");
  folders_.Learn(Folder(11), "/srv/a/sub");
  folders_.Learn(Folder(20), "/srv/b");
  folders_.Learn(Folder(21), "/srv/b/sub");
  folders_.Rename(Folder(10), "/srv/a", "/srv/b");
  folders_.Rename(Folder(20), "/srv/b", "/srv/a");
  EXPECT_EQ(PathOf(11), "/srv/b/sub");
  EXPECT_EQ(PathOf(21), "/srv/a/sub");
}

TEST_F(FolderIdentitiesTest, FoldersChangePlacesWithAllBelowThem) {
  folders_.Learn(Folder(10), "/srv/a");
  folders_.Learn(Folder(11), "/srv/a/sub");
  folders_.Learn(Folder(20), "/mnt/b");
  folders_.Learn(Folder(21), "/mnt/b/sub");
  folders_.Exchange("/srv/a", "/mnt/b");
  EXPECT_EQ(PathOf(10), "/mnt/b");
  EXPECT_EQ(PathOf(11), "/mnt/b/sub");
  EXPECT_EQ(PathOf(20), "/srv/a");
  EXPECT_EQ(PathOf(21), "/srv/a/sub");
}

TEST_F(FolderIdentitiesTest, AFolderChangesPlacesWithAFile) {
  folders_.Learn(Folder(11), "/srv/a/sub");
  folders_.Exchange("/srv/file", "/srv/a");
  EXPECT_EQ(PathOf(11), "/srv/file/sub");
  folders_.Exchange("/srv/file", "/srv/a");
  EXPECT_EQ(PathOf(11), "/srv/a/sub");
  folders_.Exchange("/nobody", "/knows");
  EXPECT_EQ(At("/nobody"), 0U);
}

TEST_F(FolderIdentitiesTest, ARemovedFolderIsForgottenWithWhatWasBelowIt) {
  folders_.Learn(Folder(10), "/srv/a");
  folders_.Learn(Folder(11), "/srv/a/sub");
  folders_.Learn(Folder(12), "/srv/b");
  folders_.Remove(Folder(10));
  EXPECT_EQ(PathOf(10), "unknown");
  EXPECT_EQ(PathOf(11), "unknown");
  EXPECT_EQ(At("/srv/a"), 0U);
  EXPECT_EQ(PathOf(12), "/srv/b");
  folders_.Remove(Folder(99));
}

TEST_F(FolderIdentitiesTest, ANewFolderUnderAnOldNameReplacesTheOldOne) {
  folders_.Learn(Folder(10), "/srv/a");
  folders_.Learn(Folder(11), "/srv/a/sub");
  folders_.Learn(Folder(20), "/srv/a");
  EXPECT_EQ(At("/srv/a"), 20U);
  EXPECT_EQ(PathOf(10), "unknown");
  EXPECT_EQ(PathOf(11), "unknown");
}

TEST_F(FolderIdentitiesTest, AnInodeThatIsUsedAgainMovesToItsNewPath) {
  folders_.Learn(Folder(10), "/srv/a");
  folders_.Learn(Folder(10), "/srv/b");
  EXPECT_EQ(PathOf(10), "/srv/b");
  EXPECT_EQ(At("/srv/a"), 0U);
}

TEST_F(FolderIdentitiesTest, AFolderThatSeemsToLieWithinItselfWasOutOfDate) {
  folders_.Learn(Folder(10), "/srv/a");
  folders_.Learn(Folder(11), "/srv/a/b");
  folders_.Learn(Folder(10), "/srv/a/b/c");
  EXPECT_EQ(PathOf(10), "/srv/a/b/c");
  folders_.Learn(Folder(20), "/x/y/z");
  folders_.Learn(Folder(20), "/x/y");
  EXPECT_EQ(PathOf(20), "/x/y");
  folders_.Learn(Folder(2), "/");
  folders_.Learn(Folder(2), "/jail");
  EXPECT_EQ(PathOf(2), "/jail");
  EXPECT_EQ(PathOf(20), "/x/y");
}

TEST_F(FolderIdentitiesTest, AFolderThatIsTheRootIsNowhereElse) {
  folders_.Learn(Folder(2), "/jail");
  folders_.Learn(Folder(2), "/");
  EXPECT_EQ(PathOf(2), "/");
  EXPECT_EQ(At("/jail"), 0U);
}

TEST_F(FolderIdentitiesTest, NoNamesAreLeftAboveAFolderThatIsGone) {
  folders_.Learn(Folder(10), "/a/b/c");
  folders_.Learn(Folder(11), "/a/d");
  folders_.Remove(Folder(10));
  EXPECT_EQ(folders_.Size(), 3U) << "the root, /a and /a/d";
  folders_.Remove(Folder(11));
  EXPECT_EQ(folders_.Size(), 1U);
}

TEST_F(FolderIdentitiesTest, TakesNoPathThatIsNone) {
  for (const std::string path : {"", "srv/data", "inode:17", "/srv/"}) {
    folders_.Learn(Folder(10), path);
    folders_.Rename(Folder(10), "/srv", path);
    EXPECT_EQ(PathOf(10), "unknown") << path;
  }
  folders_.Learn(Folder(0), "/srv");
  EXPECT_EQ(folders_.Size(), 1U);
  EXPECT_FALSE(folders_.PathOf({0, 0}).has_value());
}

TEST_F(FolderIdentitiesTest, ForgetsWhatIsNoLongerWatched) {
  folders_.Learn(Folder(10), "/srv/a/b");
  folders_.Learn(Folder(11), "/etc");
  folders_.Forget("/srv");
  EXPECT_EQ(PathOf(10), "unknown");
  EXPECT_EQ(PathOf(11), "/etc");
  folders_.Forget("/nowhere");
  folders_.Forget("/");
  EXPECT_EQ(folders_.Size(), 1U);
  folders_.Learn(Folder(12), "/again");
  EXPECT_EQ(PathOf(12), "/again");
}

// --- what a look at the disk adds

TEST_F(FolderIdentitiesTest, ALookAtTheDiskAddsWhatNobodyTold) {
  using Found = FolderIdentities::Found;
  folders_.Learn(Folder(10), "/srv");
  EXPECT_EQ(folders_.AddFound(Folder(10), "a", Folder(11)), Found::New);
  EXPECT_EQ(PathOf(11), "/srv/a");
  EXPECT_EQ(folders_.AddFound(Folder(10), "a", Folder(11)), Found::KnownHere);
  EXPECT_EQ(folders_.AddFound(Folder(99), "a", Folder(12)), Found::KnownElsewhere) << "its parent is gone";
  folders_.Learn(Folder(14), "/srv/b/c");
  EXPECT_EQ(folders_.AddFound(Folder(10), "b", Folder(13)), Found::New) << "so far known by name only";
  EXPECT_EQ(PathOf(14), "/srv/b/c");
  EXPECT_EQ(PathOf(13), "/srv/b");
}

TEST_F(FolderIdentitiesTest, ALookAtTheDiskDoesNotUndoWhatTheRecordsTold) {
  using Found = FolderIdentities::Found;
  folders_.Learn(Folder(10), "/srv");
  folders_.Learn(Folder(11), "/srv/a");
  folders_.Rename(Folder(11), "/srv/a", "/srv/b");
  EXPECT_EQ(folders_.AddFound(Folder(10), "a", Folder(11)), Found::KnownElsewhere);
  EXPECT_EQ(folders_.AddFound(Folder(10), "b", Folder(12)), Found::KnownElsewhere);
  EXPECT_EQ(PathOf(11), "/srv/b");
  EXPECT_EQ(PathOf(12), "unknown");
}

TEST_F(FolderIdentitiesTest, ALookAtTheDiskFollowsAFolderThatMovedMeanwhile) {
  folders_.Learn(Folder(10), "/srv/a");
  folders_.Rename(Folder(10), "/srv/a", "/srv/b");
  EXPECT_EQ(folders_.AddFound(Folder(10), "sub", Folder(11)), FolderIdentities::Found::New);
  EXPECT_EQ(PathOf(11), "/srv/b/sub");
}

// --- the bound

TEST_F(FolderIdentitiesTest, AnExchangeComesAsTwoRenames) {
  folders_.Learn(Folder(10), "/a");
  folders_.Learn(Folder(11), "/a/c");
  folders_.Learn(Folder(20), "/b");
  folders_.Rename(Folder(10), "/a", "/b");
  folders_.Rename(Folder(20), "/b", "/a");
  EXPECT_EQ(PathOf(10), "/b");
  EXPECT_EQ(PathOf(11), "/b/c");
  EXPECT_EQ(PathOf(20), "/a");
}

TEST_F(FolderIdentitiesTest, KnowsNothingOutsideItsLimits) {
  folders_.Learn(Folder(2), "/");
  folders_.Learn(Folder(10), "/srv");
  folders_.Learn(Folder(11), "/srv/data");
  folders_.Learn(Folder(12), "/srv/data/deep");
  folders_.Learn(Folder(13), "/srv/database");
  folders_.Learn(Folder(14), "/tmp/x");
  folders_.Limit({"/srv/data", "/var/lib"});
  EXPECT_EQ(PathOf(11), "/srv/data");
  EXPECT_EQ(PathOf(12), "/srv/data/deep");
  for (const std::uint64_t outside : {2U, 10U, 13U, 14U}) EXPECT_EQ(PathOf(outside), "unknown") << outside;
  folders_.Learn(Folder(15), "/tmp/y");
  EXPECT_EQ(PathOf(15), "unknown");
  folders_.Rename(Folder(12), "/srv/data/deep", "/tmp/deep");
  EXPECT_EQ(PathOf(12), "unknown") << "it has left";
  folders_.Rename(Folder(16), "/tmp/build", "/var/lib/built");
  EXPECT_EQ(PathOf(16), "/var/lib/built");
  folders_.Exchange("/var/lib/built", "/tmp/other");
  EXPECT_EQ(PathOf(16), "unknown");
}

TEST_F(FolderIdentitiesTest, AnExchangeWithWhatLiesOutsideItsLimitsTakesAFolderAway) {
  folders_.Limit({"/srv"});
  folders_.Learn(Folder(10), "/srv/a");
  folders_.Exchange("/tmp/x", "/srv/a");
  EXPECT_EQ(PathOf(10), "unknown");
  EXPECT_EQ(At("/srv/a"), 0U);
}

TEST_F(FolderIdentitiesTest, NamesTheFoldersAroundTheLastOnesFirst) {
  for (int d = 0; d < 20; ++d) {
    for (int e = 0; e < 100; ++e) {
      folders_.Learn(Folder(100 + 100 * d + e), "/w/d" + std::to_string(d) + "/e" + std::to_string(e));
    }
  }
  static_cast<void>(folders_.PathOf(Folder(150)));
  const std::vector<std::string> nearby = folders_.FoldersNearby();
  EXPECT_EQ(nearby.size(), FolderIdentities::kMostNearby);
  EXPECT_EQ(nearby.front(), "/w/d0/e50");
  const auto beside = std::find(nearby.begin(), nearby.end(), "/w/d0/e7") - nearby.begin();
  EXPECT_LT(beside, 300) << "of 2,000";
}

TEST(FolderIdentitiesDenialTest, IsSaidForAMomentOfTheLastTwo) {
  fakes::FakeClock clock;
  FolderIdentities folders(FolderIdentities::kCapacity, clock);
  folders.Deny(Folder(1), "/a");
  EXPECT_TRUE(folders.Ask(Folder(1), "/a").is_denied);
  EXPECT_FALSE(folders.Ask(Folder(2), "/a").is_denied);
  EXPECT_FALSE(folders.Ask(Folder(1), "/b").is_denied);
  folders.Deny(Folder(2), "/b");
  EXPECT_TRUE(folders.Ask(Folder(1), "/a").is_denied);
  folders.Deny(Folder(3), "/c");
  EXPECT_FALSE(folders.Ask(Folder(1), "/a").is_denied);
  folders.Learn(Folder(3), "/c");
  EXPECT_TRUE(folders.Ask(Folder(3), "/c").is_here) << "it was made since";
  clock.Advance(FolderIdentities::kDenialTime);
  EXPECT_FALSE(folders.Ask(Folder(2), "/b").is_denied);
}

TEST(FolderIdentitiesNearbyTest, NamesFewerFoldersTheMoreLooksWereInVain) {
  fakes::FakeClock clock;
  FolderIdentities folders(FolderIdentities::kCapacity, clock);
  for (std::uint64_t i = 1; i <= 2000; ++i) folders.Learn(Folder(i), "/w/" + std::to_string(i));
  for (int i = 0; i < 100; ++i) {
    const std::vector<std::string> nearby = folders.FoldersNearby();
    ASSERT_EQ(nearby.size(), FolderIdentities::kMostNearby);
    folders.FoundNearby("/w/17", nearby);
  }
  EXPECT_EQ(folders.FoldersNearby().front(), "/w/17");
  std::size_t looks = 0;
  for (int i = 0; i < 100; ++i) looks += folders.FoldersNearby().size();
  EXPECT_LE(looks, 10'000U);
  EXPECT_EQ(folders.FoldersNearby().size(), 16U);
  clock.Advance(std::chrono::seconds(1));
  EXPECT_EQ(folders.FoldersNearby().size(), FolderIdentities::kMostNearby);
}

TEST(FolderIdentitiesBoundTest, APathThatNoCallCouldNameIsNotTold) {
  FolderIdentities folders;
  std::string path;
  for (std::uint64_t i = 1; i <= 17; ++i) {
    path += "/" + std::string(250, 'n');
    folders.Learn(Folder(i), path);
  }
  EXPECT_TRUE(folders.PathOf(Folder(16)).has_value());
  EXPECT_FALSE(folders.PathOf(Folder(17)).has_value());
  EXPECT_EQ(folders.AddFound(Folder(16), std::string(250, 'n'), Folder(18)), FolderIdentities::Found::KnownElsewhere);
  // A folder that is moved may take others to where they cannot be told.
  folders.Rename(Folder(1), "/" + std::string(250, 'n'), "/short/" + std::string(250, 'n'));
  folders.Learn(Folder(30), "/top");
  folders.Rename(Folder(1), "/short/" + std::string(250, 'n'),
                 "/top/" + std::string(250, 'm') + "/" + std::string(250, 'o'));
  EXPECT_FALSE(folders.PathOf(Folder(16)).has_value());
  EXPECT_TRUE(folders.Ask(Folder(16), "/elsewhere").is_taken) << "nothing is trusted then";
}

TEST(FolderIdentitiesBoundTest, TheFolderThatNobodyAskedForTheLongestGoesFirst) {
  FolderIdentities folders(5);  // the root, /srv and three more
  folders.Learn(Folder(10), "/srv/a");
  folders.Learn(Folder(11), "/srv/b");
  folders.Learn(Folder(12), "/srv/c");
  EXPECT_EQ(folders.PathOf(Folder(10)), "/srv/a");
  folders.Learn(Folder(13), "/srv/d");
  EXPECT_EQ(folders.PathOf(Folder(11)), std::nullopt);
  EXPECT_EQ(folders.PathOf(Folder(10)), "/srv/a");
  EXPECT_EQ(folders.PathOf(Folder(12)), "/srv/c");
  EXPECT_EQ(folders.PathOf(Folder(13)), "/srv/d");
  EXPECT_EQ(folders.Size(), 5U);
}

TEST(FolderIdentitiesBoundTest, AFolderStaysAsLongAsAnyBelowIt) {
  FolderIdentities folders(5);
  folders.Learn(Folder(10), "/srv");
  folders.Learn(Folder(11), "/srv/a");
  folders.Learn(Folder(12), "/srv/a/b");
  folders.Learn(Folder(20), "/x");
  ASSERT_TRUE(folders.PathOf(Folder(12)));
  folders.Learn(Folder(21), "/y");
  EXPECT_EQ(folders.PathOf(Folder(20)), std::nullopt);
  EXPECT_EQ(folders.PathOf(Folder(12)), "/srv/a/b");
  EXPECT_EQ(folders.PathOf(Folder(10)), "/srv");
}

TEST(FolderIdentitiesBoundTest, AnExchangedFolderGoesBeforeThoseAboveIt) {
  FolderIdentities folders(5);  // the root, two folders and one in each
  folders.Learn(Folder(10), "/x/b");
  folders.Learn(Folder(20), "/y/a");
  folders.Exchange("/y/a", "/x/b");
  folders.Learn(Folder(30), "/z");
  EXPECT_EQ(folders.PathOf(Folder(20)), std::nullopt);
  EXPECT_EQ(folders.PathOf(Folder(10)), "/y/a");
  EXPECT_EQ(folders.PathOf(Folder(30)), "/z");
}

TEST(FolderIdentitiesBoundTest, ALookAtTheDiskPushesNothingOut) {
  FolderIdentities folders(3);
  folders.Learn(Folder(10), "/srv");
  folders.Learn(Folder(11), "/srv/a");
  EXPECT_EQ(folders.AddFound(Folder(10), "b", Folder(12)), FolderIdentities::Found::NoRoom);
  EXPECT_EQ(folders.PathOf(Folder(11)), "/srv/a");
}

TEST(FolderIdentitiesBoundTest, APathDeeperThanTheWholeMapIsNotTaken) {
  FolderIdentities folders(3);
  folders.Learn(Folder(10), "/a/b/c/d/e");
  EXPECT_EQ(folders.PathOf(Folder(10)), std::nullopt);
  folders.Learn(Folder(11), "/a");
  EXPECT_EQ(folders.PathOf(Folder(11)), "/a");
  EXPECT_LE(folders.Size(), 3U);
}

TEST(FolderIdentitiesBoundTest, HoldsAsManyAsItSays) {
  FolderIdentities folders;
  for (std::uint64_t i = 1; i < 2 * FolderIdentities::kCapacity; ++i) {
    folders.Learn(Folder(i), "/watched/folder-" + std::to_string(i % 300) + "/sub-" + std::to_string(i));
  }
  EXPECT_EQ(folders.Size(), FolderIdentities::kCapacity);
  const std::uint64_t last = 2 * FolderIdentities::kCapacity - 1;
  EXPECT_EQ(folders.PathOf(Folder(last)),
            "/watched/folder-" + std::to_string(last % 300) + "/sub-" + std::to_string(last));
  EXPECT_EQ(folders.PathOf(Folder(1)), std::nullopt);
}

// --- against a plain model

// A file system of folders that are named by single letters, and what a map without bound would know of it.
class Model {
 public:
  explicit Model(std::uint32_t seed) : random_(seed) {}

  void Step(FolderIdentities& folders) {
    switch (Below(6)) {
      case 0:
      case 1:
        return Make(folders);
      case 2:
      case 3:
        return Rename(folders);
      case 4:
        return Remove(folders);
      default:
        return Exchange(folders);
    }
  }

  void Compare(FolderIdentities& folders) const {
    for (const auto& [path, inode] : paths_) {
      ASSERT_EQ(folders.PathOf(Folder(inode)), path);
      ASSERT_EQ(folders.FolderAt(path), Folder(inode)) << path;
    }
  }

 private:
  std::size_t Below(std::size_t bound) { return random_() % bound; }
  static bool IsWithin(const std::string& path, const std::string& folder) {
    return path == folder || path.starts_with(folder + "/");
  }
  std::string Any() {
    if (paths_.empty()) return {};
    return std::next(paths_.begin(), static_cast<std::ptrdiff_t>(Below(paths_.size())))->first;
  }
  std::string NewName() {
    const std::string folder = Below(4) == 0 ? "" : Any();
    return folder + "/" + static_cast<char>('a' + Below(6));
  }
  bool IsEmpty(const std::string& path) const {
    const auto next = paths_.upper_bound(path);
    return next == paths_.end() || !next->first.starts_with(path + "/");
  }
  void Relocate(const std::string& from, const std::string& to, std::map<std::string, std::uint64_t>& target) {
    for (auto i = paths_.begin(); i != paths_.end();) {
      if (IsWithin(i->first, from)) {
        target[to + i->first.substr(from.size())] = i->second;
        i = paths_.erase(i);
      } else {
        ++i;
      }
    }
  }

  void Make(FolderIdentities& folders) {
    const std::string path = NewName();
    if (paths_.count(path) != 0) return;
    paths_[path] = ++last_inode_;
    folders.Learn(Folder(last_inode_), path);
  }
  void Rename(FolderIdentities& folders) {
    const std::string from = Any();
    const std::string to = NewName();
    if (from.empty() || IsWithin(to, from) || (paths_.count(to) != 0 && !IsEmpty(to))) return;
    folders.Rename(Folder(paths_[from]), from, to);
    paths_.erase(to);
    std::map<std::string, std::uint64_t> moved;
    Relocate(from, to, moved);
    paths_.merge(moved);
  }
  void Remove(FolderIdentities& folders) {
    const std::string path = Any();
    if (path.empty() || !IsEmpty(path)) return;
    folders.Remove(Folder(paths_[path]));
    paths_.erase(path);
  }
  void Exchange(FolderIdentities& folders) {
    const std::string a = Any();
    const std::string b = Any();
    if (a.empty() || IsWithin(a, b) || IsWithin(b, a)) return;
    // The records tell it at once, or as a rename each way.
    if (Below(2) == 0) {
      folders.Exchange(a, b);
    } else {
      folders.Rename(Folder(paths_[a]), a, b);
      folders.Rename(Folder(paths_[b]), b, a);
    }
    std::map<std::string, std::uint64_t> moved;
    Relocate(a, b, moved);
    std::map<std::string, std::uint64_t> other;
    Relocate(b, a, other);
    paths_.merge(moved);
    paths_.merge(other);
  }

  std::mt19937 random_;
  std::uint64_t last_inode_ = 2;
  std::map<std::string, std::uint64_t> paths_;
};

TEST(FolderIdentitiesPropertyTest, KnowsEveryPathWhateverIsDoneToTheFolders) {
  for (std::uint32_t seed = 1; seed <= 20; ++seed) {
    FolderIdentities folders;
    Model model(seed);
    for (int step = 0; step < 500; ++step) {
      model.Step(folders);
      ASSERT_NO_FATAL_FAILURE(model.Compare(folders)) << "seed " << seed << ", step " << step;
    }
  }
}

// With too little room folders are missing; what is there must be consistent, and never more than the bound.
TEST(FolderIdentitiesPropertyTest, KeepsToItsBoundWhateverIsDone) {
  for (std::uint32_t seed = 1; seed <= 20; ++seed) {
    const std::size_t capacity = 1 + seed;
    FolderIdentities folders(capacity);
    Model model(seed);
    for (int step = 0; step < 500; ++step) {
      model.Step(folders);
      ASSERT_LE(folders.Size(), capacity);
      for (std::uint64_t inode = 3; inode < 60; ++inode) {
        const auto path = folders.PathOf(Folder(inode));
        if (!path) continue;
        ASSERT_EQ(folders.FolderAt(*path), Folder(inode)) << "seed " << seed << ", step " << step;
      }
    }
  }
}

TEST(FolderIdentitiesThreadsTest, SeveralThreadsMayUseItAtOnce) {
  FolderIdentities folders(500);
  std::vector<std::thread> threads;
  for (std::uint64_t t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (std::uint64_t i = 1; i < 2000; ++i) {
        const FileIdentity folder{t, 1 + i % 100};
        const std::string path = "/t" + std::to_string(t) + "/" + std::to_string(i % 100);
        folders.Learn(folder, path);
        EXPECT_EQ(folders.PathOf(folder), path);
        if (i % 7 == 0) folders.Remove(folder);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_LE(folders.Size(), 500U);
}

}  // namespace
}  // namespace zagent::audit::internal
