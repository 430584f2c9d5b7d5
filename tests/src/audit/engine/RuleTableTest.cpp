#include "src/audit/engine/RuleTable.h"

#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeRule.h"

namespace zagent::audit::internal {
namespace {

using edr::EventType;
using fakes::FakeEvent;
using fakes::FakeRule;
using Ids = std::map<std::string, std::vector<std::string>>;

class RuleTableTest : public ::testing::Test {
 protected:
  void Insert(const std::string& tag, const std::string& id, const std::string& path) {
    table_.Insert(tag, FakeRule::Directory(id, path, {EventType::Write}));
  }
  [[nodiscard]] Ids Find(const std::string& path) const {
    return table_.FindByPathOf(FakeEvent(EventType::Write, "Write", path));
  }

  RuleTable table_;
};

TEST_F(RuleTableTest, AnswersEachTagWithItsRulesInOrder) {
  Insert("FIM", "b", "/etc");
  Insert("FIM", "a", "/etc/ssh");
  Insert("IOC", "c", "/");
  EXPECT_EQ(Find("/etc/ssh/key"), (Ids{{"FIM", {"a", "b"}}, {"IOC", {"c"}}}));
  EXPECT_EQ(Find("/home/user"), (Ids{{"IOC", {"c"}}}));
}

TEST_F(RuleTableTest, DoesNotConfuseRulesOfTwoTagsWithTheSameId) {
  Insert("FIM", "1", "/etc");
  Insert("IOC", "1", "/home");
  EXPECT_EQ(Find("/etc/passwd"), (Ids{{"FIM", {"1"}}}));
  EXPECT_EQ(Find("/home/user"), (Ids{{"IOC", {"1"}}}));
  table_.Remove("FIM", "1");
  EXPECT_TRUE(Find("/etc/passwd").empty());
  EXPECT_EQ(Find("/home/user"), (Ids{{"IOC", {"1"}}}));
}

TEST_F(RuleTableTest, FindsARenameAtBothEnds) {
  Insert("FIM", "from", "/from");
  Insert("FIM", "to", "/to");
  FakeEvent event(EventType::Rename, "Rename", "/from/a");
  event.new_file = common::ImageInfo("/to/b");
  EXPECT_EQ(table_.FindByPathOf(event), (Ids{{"FIM", {"from", "to"}}}));
  event.file = common::ImageInfo("/elsewhere/a");
  EXPECT_EQ(table_.FindByPathOf(event), (Ids{{"FIM", {"to"}}}));
}

TEST_F(RuleTableTest, FindsNothingForAnEventWithoutAnAbsolutePath) {
  Insert("FIM", "all", "/");
  FakeEvent event;
  EXPECT_TRUE(table_.FindByPathOf(event).empty());
  EXPECT_TRUE(Find("").empty());
  EXPECT_TRUE(Find("relative").empty());
}

TEST_F(RuleTableTest, ReplacesARuleThatHasMoved) {
  Insert("FIM", "1", "/etc");
  Insert("FIM", "1", "/home");
  EXPECT_TRUE(Find("/etc/passwd").empty());
  EXPECT_EQ(Find("/home/user"), (Ids{{"FIM", {"1"}}}));
  const RuleTable::Rule same_place = FakeRule::Directory("1", "/home", {EventType::Read});
  table_.Insert("FIM", same_place);
  EXPECT_EQ(Find("/home/user"), (Ids{{"FIM", {"1"}}}));
  EXPECT_EQ(table_.Find("FIM", "1"), same_place);
}

TEST_F(RuleTableTest, RefusesARuleWithoutAbsolutePathAndChangesNothing) {
  EXPECT_THROW(Insert("FIM", "1", "etc"), std::runtime_error);
  EXPECT_THROW(Insert("FIM", "", "/etc"), std::runtime_error);
  EXPECT_TRUE(table_.GetRules().empty());
}

TEST_F(RuleTableTest, ForgetsATagWithItsLastRuleAndEverythingOnDemand) {
  Insert("FIM", "1", "/etc");
  table_.Remove("FIM", "unknown");
  table_.Remove("FIM", "1");
  EXPECT_TRUE(table_.GetRules().empty());
  Insert("FIM", "1", "/etc");
  table_.Clear();
  EXPECT_TRUE(table_.GetRules().empty());
  EXPECT_TRUE(Find("/etc/passwd").empty());
}

TEST_F(RuleTableTest, NamesTheFoldersThatAreWatched) {
  using Folders = std::vector<WatchedFolder>;
  EXPECT_EQ(table_.WatchedFolders(), Folders{});
  Insert("FIM", "a", "/srv/data/");
  Insert("IOC", "b", "/srv/data");
  table_.Insert("FIM", FakeRule::File("c", "/etc/passwd", {EventType::Write}));
  table_.Insert("FIM", FakeRule::File("d", "/etc/group", {EventType::Write}));
  table_.Insert("FIM", FakeRule::File("e", "/vmlinuz", {EventType::Write}));
  EXPECT_EQ(table_.WatchedFolders(), (Folders{{"/", false}, {"/etc", false}, {"/srv/data", true}}));
  Insert("FIM", "f", "/");
  table_.Remove("FIM", "e");
  EXPECT_EQ(table_.WatchedFolders(), (Folders{{"/", true}, {"/etc", false}, {"/srv/data", true}}));
}

}  // namespace
}  // namespace zagent::audit::internal
