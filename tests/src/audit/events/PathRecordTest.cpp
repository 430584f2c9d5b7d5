#include "src/audit/events/PathRecord.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "src/audit/events/PathResolution.h"
#include "src/edr/Event.h"
#include "tests/fakes/AuditRecords.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

using Fields = fakes::AuditRecords::Fields;

class PathRecordTest : public ::testing::Test {
 protected:
  // A record as a 6.1 kernel writes it.
  static Fields Record(const Fields& changes = {}) {
    Fields fields = {{"item", "1"},    {"name", "/srv/w/h"}, {"inode", "101"},
                     {"dev", "00:02"}, {"mode", "0100644"},  {"ouid", "12"},
                     {"ogid", "34"},   {"rdev", "00:00"},    {"nametype", "CREATE"}};
    for (const auto& [name, value] : changes) fields[name] = value;
    return fields;
  }
  static Fields Without(const std::string& field) {
    Fields fields = Record();
    fields.erase(field);
    return fields;
  }
  static PathRecord Build(const Fields& fields, const std::string& cwd = "/srv/w", const std::string& parent = "") {
    return {fakes::AuditRecords::ViewOf(fields), cwd, parent};
  }
  static std::string ErrorOf(const Fields& fields) {
    try {
      Build(fields);
    } catch (const edr::EventException& error) {
      return error.what();
    }
    return "no EventException";
  }
  // The record of a file that the call did not name.
  static Fields Unnamed(const std::string& disk_path, const std::string& word = "NORMAL") {
    return fakes::AuditRecords::PathFields(word, "(null)", disk_path);
  }

  fakes::TempFolder folder_;
};

TEST_F(PathRecordTest, ReadsWhatTheRecordSaysOfAFile) {
  const PathRecord record = Build(Record());
  EXPECT_EQ(record.device, "00:02");
  EXPECT_EQ(record.item, 1U);
  EXPECT_EQ(record.inode, 101U);
  EXPECT_TRUE(record.is_file);
  EXPECT_FALSE(record.is_symlink);
  EXPECT_EQ(record.owner_id, 12U);
  EXPECT_EQ(record.group_id, 34U);
  EXPECT_EQ(record.path, "/srv/w/h");
  EXPECT_EQ(record.permission, 644U);
  EXPECT_EQ(record.type_word, TypeWord::Create);
}

TEST_F(PathRecordTest, TellsFilesLinksAndFoldersApartByTheirMode) {
  const PathRecord folder = Build(Record({{"mode", "040700"}}));
  EXPECT_FALSE(folder.is_file);
  EXPECT_EQ(folder.permission, 700U);
  const PathRecord link = Build(Record({{"mode", "0120777"}}));
  EXPECT_TRUE(link.is_file);
  EXPECT_TRUE(link.is_symlink);
}

TEST_F(PathRecordTest, RefusesWhatIsNeither) {
  EXPECT_EQ(ErrorOf(Record({{"mode", "010600"}})), "Unknown mode 010600 in PATH record");    // FIFO
  EXPECT_EQ(ErrorOf(Record({{"mode", "0140600"}})), "Unknown mode 0140600 in PATH record");  // socket
  EXPECT_EQ(ErrorOf(Record({{"mode", "rubbish"}})), "Unknown mode rubbish in PATH record");
}

TEST_F(PathRecordTest, RefusesARecordWithoutAnInode) {
  EXPECT_EQ(ErrorOf(Without("inode")), "Cannot create PathRecord without inode information");
}

TEST_F(PathRecordTest, NeedsItemAndName) {
  EXPECT_THROW(Build(Without("item")), std::out_of_range);
  EXPECT_THROW(Build(Without("name")), std::out_of_range);
}

TEST_F(PathRecordTest, PrefersTheObjectTypeToTheNameTypeAndDoesWithoutEither) {
  EXPECT_EQ(Build(Record({{"objtype", "DELETE"}})).type_word, TypeWord::Delete);
  EXPECT_EQ(Build(Without("nametype")).type_word, TypeWord::None);
}

TEST_F(PathRecordTest, KnowsTheKernelsWordsAndKeepsThemForTheLog) {
  const std::pair<const char*, TypeWord> words[] = {{"PARENT", TypeWord::Parent},
                                                    {"CREATE", TypeWord::Create},
                                                    {"DELETE", TypeWord::Delete},
                                                    {"NORMAL", TypeWord::Normal}};
  for (const auto& [text, word] : words) {
    EXPECT_EQ(Build(Record({{"nametype", text}})).type_word, word);
    EXPECT_STREQ(TextOf(word), text);
  }
  EXPECT_EQ(Build(Record({{"nametype", "UNKNOWN"}})).type_word, TypeWord::Unknown);
  EXPECT_STREQ(TextOf(TypeWord::None), "");
}

TEST_F(PathRecordTest, RefusesProcSelfButNothingBelowIt) {
  EXPECT_EQ(ErrorOf(Record({{"name", "/proc/self"}})), "Got proc/self in path record");
  EXPECT_EQ(Build(Record({{"name", "/proc/self/comm"}})).path, "/proc/self/comm");
}

TEST_F(PathRecordTest, LooksAnUnnamedFileUpInTheWorkingFolder) {
  const std::string file = folder_.Write("f", "abc");
  folder_.Write("other", "abc");
  EXPECT_EQ(Build(Unnamed(file), folder_.Path()).path, file);
  Fields empty_name = Unnamed(file);
  empty_name["name"] = "";
  EXPECT_EQ(Build(empty_name, folder_.Path()).path, file);
}

TEST_F(PathRecordTest, LooksAnUnnamedFileUpInTheFolderOfItsParentRecord) {
  ASSERT_EQ(mkdir((folder_ / "sub").c_str(), 0700), 0);
  const std::string file = folder_.Write("sub/f", "abc");
  EXPECT_EQ(Build(Unnamed(file), "/", folder_ / "sub").path, file);
  EXPECT_EQ(NormalisePath(Build(Unnamed(file), folder_.Path(), "sub/").path), file);
}

TEST_F(PathRecordTest, LooksAnUnnamedParentUpInTheWorkingFolderWhateverCameBefore) {
  ASSERT_EQ(mkdir((folder_ / "sub").c_str(), 0700), 0);
  EXPECT_EQ(Build(Unnamed(folder_ / "sub", "PARENT"), folder_.Path(), "/nowhere").path, folder_ / "sub");
}

TEST_F(PathRecordTest, NamesAFileThatItCannotFindByItsInode) {
  const Fields record = Record({{"name", "(null)"}, {"inode", "118"}});
  EXPECT_EQ(Build(record, folder_.Path()).path, "inode:118");
}

TEST_F(PathRecordTest, GuessesAPathInAFolderThatItCannotRead) {
  const Fields record = Record({{"name", "(null)"}, {"inode", "118"}});
  EXPECT_EQ(Build(record, folder_ / "missing").path, folder_ / "missing/118");
}

TEST_F(PathRecordTest, CombinesOnlyWhatIsTheSameObject) {
  PathRecord first = Build(Record());
  first.path.clear();
  first.Combine(Build(Record({{"name", "/srv/w/h2"}, {"mode", "0100600"}})));
  EXPECT_EQ(first.path, "/srv/w/h2");
  EXPECT_EQ(first.permission, 644U);
  first.Combine(Build(Record({{"name", "/srv/w/h3"}})));
  EXPECT_EQ(first.path, "/srv/w/h2");
  for (const Fields& other : {Record({{"inode", "102"}}), Record({{"dev", "00:03"}})}) {
    try {
      first.Combine(Build(other));
      ADD_FAILURE() << "combined two objects";
    } catch (const edr::EventException& error) {
      EXPECT_STREQ(error.what(), "Cannot combine records with missing or different inodes");
    }
  }
}

TEST(PathResolutionTest, TakesTheTextOfARelativeParentOffItsChild) {
  EXPECT_EQ(NameWithinParent("sub/", "sub/f"), "f");
  EXPECT_EQ(NameWithinParent("sub", "sub/f"), "f");
  EXPECT_EQ(NameWithinParent("../", "../f"), "f");
  EXPECT_EQ(NameWithinParent("sub/", "sub//f"), "f");
}

TEST(PathResolutionTest, LeavesChildrenThatDoNotRepeatTheirParent) {
  EXPECT_EQ(NameWithinParent("/srv/w", "sub"), "sub");
  EXPECT_EQ(NameWithinParent("/srv/w/", "/srv/w/f"), "/srv/w/f");
  EXPECT_EQ(NameWithinParent("sub", "subject"), "subject");
  EXPECT_EQ(NameWithinParent("sub", "sub"), "sub");
  EXPECT_EQ(NameWithinParent("sub/", "sub/"), "sub/");
  EXPECT_EQ(NameWithinParent("longer/", "f"), "f");
}

TEST(PathResolutionTest, FindsTheFolderTextOfAName) {
  EXPECT_EQ(FolderText("sub/f"), "sub/");
  EXPECT_EQ(FolderText("sub/f/"), "sub/");
  EXPECT_EQ(FolderText("f"), "");
  EXPECT_EQ(FolderText("f/"), "");
  EXPECT_EQ(FolderText("/tmp/out"), "/tmp/");
  EXPECT_EQ(FolderText("/"), "/");
}

TEST(PathResolutionTest, FindsTheFolderOfAPath) {
  EXPECT_EQ(FolderPart("/srv/w/f"), "/srv/w");
  EXPECT_EQ(FolderPart("/srv/w/d/"), "/srv/w");
  EXPECT_EQ(FolderPart("/f"), "/");
  EXPECT_EQ(FolderPart("/"), "/");
}

// Random paths of the pieces that mean something to a path.
TEST(PathResolutionTest, TakesItsShortcutOnlyWhereItChangesNothing) {
  const std::vector<std::string> pieces = {"/",   "//", ".",   "..", "a",    "bc", ".hidden",
                                           "...", "~",  "x y", "\n", "\xff", "C:"};
  std::mt19937 random(20240501);
  for (int round = 0; round < 20'000; ++round) {
    std::string path = random() % 8 == 0 ? "" : "/";
    for (std::size_t count = random() % 7; count > 0; --count) path += pieces[random() % pieces.size()];
    if (path.empty()) continue;
    EXPECT_EQ(NormalisePath(path), NormaliseWithPoco(path)) << path;
  }
}

TEST(PathResolutionTest, KnowsWhichArgumentIsTheFolderOfTheObject) {
  // openat, mkdirat, mknodat, fchownat, futimesat, unlinkat, renameat, fchmodat, utimensat, renameat2
  for (const std::uint32_t syscall : {257U, 258U, 259U, 260U, 261U, 263U, 264U, 268U, 280U, 316U}) {
    EXPECT_EQ(DirectoryArgumentOf(syscall), 0U) << syscall;
  }
  EXPECT_EQ(DirectoryArgumentOf(265), 2U);  // linkat
  EXPECT_EQ(DirectoryArgumentOf(266), 1U);  // symlinkat
  // open, fchmod, rename, open_by_handle_at: their first argument is something else.
  for (const std::uint32_t syscall : {2U, 91U, 82U, 304U}) EXPECT_EQ(DirectoryArgumentOf(syscall), std::nullopt);
}

TEST(PathResolutionTest, ReadsDescriptorsUnderAnyRootOfProcfs) {
  const fakes::TempFolder proc;
  ASSERT_EQ(mkdir((proc / "42").c_str(), 0700), 0);
  ASSERT_EQ(mkdir((proc / "42/fd").c_str(), 0700), 0);
  ASSERT_EQ(symlink("/srv/w/sub", (proc / "42/fd/7").c_str()), 0);
  EXPECT_EQ(DescriptorPath(42, 7, proc.Path()), "/srv/w/sub");
  EXPECT_EQ(DescriptorPath(42, 8, proc.Path()), "");
  EXPECT_EQ(DescriptorPath(43, 7, proc.Path()), "");
}

}  // namespace
}  // namespace zagent::audit::internal
