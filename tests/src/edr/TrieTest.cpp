#include "src/edr/Trie.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "tests/fakes/LogCapture.h"

namespace zagent::edr {
namespace {

using Values = Trie::Values;

class TrieTest : public ::testing::Test {
 protected:
  template <typename Call>
  static std::string ErrorOf(const Call& call) {
    try {
      call();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "no error";
  }

  fakes::LogCapture log_;
  Trie trie_;
};

TEST_F(TrieTest, FindsTheRulesOfThePathAndOfEachAncestor) {
  trie_.Insert("root", "FIM", "/");
  trie_.Insert("etc", "FIM", "/etc");
  trie_.Insert("ssh", "FIM", "/etc/ssh");
  trie_.Insert("home", "FIM", "/home");
  EXPECT_EQ(trie_.GetValues("/etc/ssh/sshd_config"), (Values{{"root", {"FIM"}}, {"etc", {"FIM"}}, {"ssh", {"FIM"}}}));
  EXPECT_EQ(trie_.GetValues("/etc"), (Values{{"root", {"FIM"}}, {"etc", {"FIM"}}}));
  EXPECT_EQ(trie_.GetValues("/"), (Values{{"root", {"FIM"}}}));
}

TEST_F(TrieTest, ComparesWholeComponentsOnly) {
  trie_.Insert("etc", "FIM", "/etc");
  EXPECT_TRUE(trie_.GetValues("/etcetera/file").empty());
  EXPECT_TRUE(trie_.GetValues("/et").empty());
}

TEST_F(TrieTest, KnowsNothingBelowAPathThatOnlyLeadsToARule) {
  trie_.Insert("deep", "FIM", "/a/b/c");
  EXPECT_TRUE(trie_.GetValues("/a/b").empty());
  EXPECT_EQ(trie_.GetValues("/a/b/c").size(), 1U);
}

TEST_F(TrieTest, PassesOverEmptyComponents) {
  trie_.Insert("etc", "FIM", "//etc///ssh/");
  EXPECT_EQ(trie_.GetValues("/etc/ssh").size(), 1U);
  EXPECT_EQ(trie_.GetValues("/etc//ssh///key").size(), 1U);
}

TEST_F(TrieTest, HoldsAValueAtSeveralPlacesAndUnderSeveralTags) {
  trie_.Insert("1", "FIM", "/etc");
  trie_.Insert("1", "IOC", "/etc/ssh");
  trie_.Insert("1", "FIM", "/home");
  EXPECT_EQ(trie_.GetValues("/etc/ssh/key"), (Values{{"1", {"FIM", "IOC"}}}));
  EXPECT_EQ(trie_.GetValues("/etc/passwd"), (Values{{"1", {"FIM"}}}));
  EXPECT_EQ(trie_.GetValues("/home/user"), (Values{{"1", {"FIM"}}}));
}

TEST_F(TrieTest, RefusesAnEmptyValueAndPathsThatAreNotAbsolute) {
  EXPECT_EQ(ErrorOf([&] { trie_.Insert("", "FIM", "/etc"); }), "Trie::Insert: value is empty");
  EXPECT_EQ(ErrorOf([&] { trie_.Insert("1", "FIM", ""); }), "Trie::Insert: path is empty or invalid");
  EXPECT_EQ(ErrorOf([&] { trie_.Insert("1", "FIM", "etc/ssh"); }), "Trie::Insert: path is empty or invalid");
  EXPECT_EQ(ErrorOf([&] { (void)trie_.GetValues(""); }), "Trie::GetValues: path is empty or invalid");
  EXPECT_EQ(ErrorOf([&] { (void)trie_.GetValues("sub/file"); }), "Trie::GetValues: path is empty or invalid");
}

TEST_F(TrieTest, DeletesATagAndKeepsTheValueOfTheOthers) {
  trie_.Insert("1", "FIM", "/etc");
  trie_.Insert("1", "IOC", "/etc");
  trie_.Delete("1", "FIM", "/etc");
  EXPECT_EQ(trie_.GetValues("/etc"), (Values{{"1", {"IOC"}}}));
  EXPECT_TRUE(log_.Has("Trie::Delete: Deleted tag 'FIM'"));
  EXPECT_FALSE(log_.Has("Trie::Delete: Deleted node at")) << log_.All();
}

TEST_F(TrieTest, DeletesNodesThatHaveBecomeEmptyFromTheLeafUpward) {
  trie_.Insert("keep", "FIM", "/a");
  trie_.Insert("1", "FIM", "/a/b/c");
  trie_.Delete("1", "FIM", "/a/b/c");
  EXPECT_TRUE(log_.Has("Trie::Delete: Deleted node at /a/b/c"));
  EXPECT_EQ(log_.Count("Trie::Delete: Deleted node at"), 2) << log_.All();
  EXPECT_EQ(trie_.GetValues("/a/b/c"), (Values{{"keep", {"FIM"}}}));
}

TEST_F(TrieTest, KeepsANodeWithChildrenWhenItsOwnValueGoes) {
  trie_.Insert("above", "FIM", "/a");
  trie_.Insert("below", "FIM", "/a/b");
  trie_.Delete("above", "FIM", "/a");
  EXPECT_EQ(trie_.GetValues("/a/b"), (Values{{"below", {"FIM"}}}));
}

TEST_F(TrieTest, LogsWhatItCannotDelete) {
  trie_.Insert("1", "FIM", "/etc");
  trie_.Delete("1", "FIM", "/etc/ssh");
  EXPECT_TRUE(log_.Has("Trie::Delete: Failed to find the value '1' in path: /etc/ssh"));
  trie_.Delete("2", "FIM", "/etc");
  EXPECT_TRUE(log_.Has("Trie::Delete: Failed to find the value '2' in path: /etc"));
  trie_.Delete("1", "IOC", "/etc");
  EXPECT_TRUE(log_.Has("Trie::Delete: Failed to find value '1' with tag: IOC"));
  EXPECT_EQ(trie_.GetValues("/etc"), (Values{{"1", {"FIM"}}}));
}

TEST_F(TrieTest, SurvivesAPathDeeperThanTheStack) {
  std::string path;
  for (int i = 0; i < 300'000; ++i) path += "/d";
  trie_.Insert("deep", "FIM", path);
  EXPECT_EQ(trie_.GetValues(path + "/file").size(), 1U);
}

TEST_F(TrieTest, TellsPathsApartByWhatItKnowsOfThemAlone) {
  for (const char* path : {"/", "/srv", "//srv/w"}) EXPECT_EQ(trie_.KnownPartOf(path), "/") << path;
  trie_.Insert("1", "FIM", "/srv/w/sub");
  EXPECT_EQ(trie_.KnownPartOf("/srv/w/sub/deep/file"), "/srv/w/sub");
  EXPECT_EQ(trie_.KnownPartOf("/srv/w/sub/"), "/srv/w/sub");
  EXPECT_EQ(trie_.KnownPartOf("/srv//w/file"), "/srv//w");
  EXPECT_EQ(trie_.KnownPartOf("/srv/we/sub"), "/srv");
  EXPECT_EQ(trie_.KnownPartOf("/elsewhere"), "/");
  for (const char* path : {"", "srv/w/sub"}) EXPECT_EQ(trie_.KnownPartOf(path), "") << path;
}

TEST_F(TrieTest, KnowsWhetherAnythingStandsAtAPathOrBelow) {
  EXPECT_FALSE(trie_.HasValuesAtOrBelow("/"));
  trie_.Insert("rule", "FIM", "/srv/data/in");
  for (const char* path : {"/", "/srv", "/srv//data/", "/srv/data/in"}) EXPECT_TRUE(trie_.HasValuesAtOrBelow(path));
  for (const char* path : {"/srv/data/in/deep", "/srv/dat", "/srv/data/inn", "srv", ""}) {
    EXPECT_FALSE(trie_.HasValuesAtOrBelow(path)) << path;
  }
  trie_.Delete("rule", "FIM", "/srv/data/in");
  EXPECT_FALSE(trie_.HasValuesAtOrBelow("/srv"));
}

}  // namespace
}  // namespace zagent::edr
