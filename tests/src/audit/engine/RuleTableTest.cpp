#include "src/audit/engine/RuleTable.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "src/edr/EventRuleEngine.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeRule.h"

namespace zagent::audit::internal {
namespace {

using edr::EventType;
using edr::ObjectType;
using fakes::FakeEvent;
using fakes::FakeRule;
using Ids = std::map<std::string, std::vector<std::string>>;

class RuleTableTest : public ::testing::Test {
 protected:
  void Insert(const std::string& tag, const std::string& id, const std::string& path) {
    table_.Insert(tag, FakeRule::Directory(id, path, {EventType::Write}));
  }
  [[nodiscard]] Ids Find(const std::string& path) const {
    return table_.FindFor(FakeEvent(EventType::Write, "Write", path));
  }

  [[nodiscard]] Ids FindAll(ObjectType type) const {
    FakeEvent event;
    event.object_type = type;
    return table_.FindFor(event);
  }
  void InsertProcess(const std::string& tag, const std::string& id, const std::string& path) {
    table_.Insert(tag, std::make_shared<const FakeRule>(id, ObjectType::Process, path, edr::EventTypes{}));
  }
  void InsertNamed(const std::string& tag, const std::string& id, const std::string& name) {
    FakeRule rule(id, ObjectType::Process, "/bin/sh", {});
    rule.name = name;
    table_.Insert(tag, std::make_shared<const FakeRule>(std::move(rule)));
  }
  template <typename Call>
  static std::string ErrorOf(const Call& call) {
    try {
      call();
    } catch (const edr::RuleEngineException& error) {
      return error.what();
    }
    return "no error";
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
  table_.Remove("FIM", {ObjectType::Directory, "1"});
  EXPECT_TRUE(Find("/etc/passwd").empty());
  EXPECT_EQ(Find("/home/user"), (Ids{{"IOC", {"1"}}}));
}

TEST_F(RuleTableTest, FindsARenameAtBothEnds) {
  Insert("FIM", "from", "/from");
  Insert("FIM", "to", "/to");
  FakeEvent event(EventType::Rename, "Rename", "/from/a");
  event.new_file = common::ImageInfo("/to/b");
  EXPECT_EQ(table_.FindFor(event), (Ids{{"FIM", {"from", "to"}}}));
  event.file = common::ImageInfo("/elsewhere/a");
  EXPECT_EQ(table_.FindFor(event), (Ids{{"FIM", {"to"}}}));
}

TEST_F(RuleTableTest, FindsNothingForAnEventWithoutAnAbsolutePath) {
  Insert("FIM", "all", "/");
  FakeEvent event;
  EXPECT_TRUE(table_.FindFor(event).empty());
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
  EXPECT_EQ(table_.Find("FIM", {ObjectType::Directory, "1"}), same_place);
}

TEST_F(RuleTableTest, RefusesARuleWithoutAbsolutePathAndChangesNothing) {
  EXPECT_THROW(Insert("FIM", "1", "etc"), std::runtime_error);
  EXPECT_THROW(Insert("FIM", "", "/etc"), std::runtime_error);
  EXPECT_TRUE(table_.GetRules().empty());
}

TEST_F(RuleTableTest, ForgetsATagWithItsLastRuleAndEverythingOnDemand) {
  Insert("FIM", "1", "/etc");
  table_.Remove("FIM", {ObjectType::Directory, "unknown"});
  table_.Remove("FIM", {ObjectType::Directory, "1"});
  EXPECT_TRUE(table_.GetRules().empty());
  Insert("FIM", "1", "/etc");
  table_.Clear();
  EXPECT_TRUE(table_.GetRules().empty());
  EXPECT_TRUE(Find("/etc/passwd").empty());
}

TEST_F(RuleTableTest, DoesNotConfuseRulesOfDifferentTypesWithOneId) {
  Insert("FIM", "1", "/etc");
  table_.Insert("FIM", FakeRule::File("1", "/etc", {EventType::Write}));  // at the same path, even
  InsertProcess("FIM", "1", "/bin/sh");
  table_.Insert("FIM", std::make_shared<const FakeRule>("1", ObjectType::Network, "", edr::EventTypes{}));
  EXPECT_EQ(table_.GetSize(), 4U);
  EXPECT_EQ(Find("/etc/passwd"), (Ids{{"FIM", {"1"}}}));
  table_.Remove("FIM", {ObjectType::Directory, "1"});
  EXPECT_EQ(Find("/etc"), (Ids{{"FIM", {"1"}}})) << "the file rule stands there still";
  table_.Remove("FIM", {ObjectType::File, "1"});
  EXPECT_TRUE(Find("/etc").empty());
  EXPECT_EQ(FindAll(ObjectType::Process), (Ids{{"FIM", {"1"}}}));
  table_.Remove("FIM", {ObjectType::Process, "1"});
  EXPECT_TRUE(FindAll(ObjectType::Process).empty());
  EXPECT_EQ(FindAll(ObjectType::Network), (Ids{{"FIM", {"1"}}}));
}

TEST_F(RuleTableTest, AnswersAProcessWithAllProcessRulesAndAConnectionWithAllNetworkRules) {
  InsertProcess("IOC", "b", "/bin/sh");
  InsertProcess("IOC", "a", "");
  InsertProcess("FIM", "c", "/sbin/init");
  Insert("FIM", "d", "/");
  table_.Insert("IOC", std::make_shared<const FakeRule>("n", ObjectType::Network, "", edr::EventTypes{}));
  EXPECT_EQ(FindAll(ObjectType::Process), (Ids{{"FIM", {"c"}}, {"IOC", {"a", "b"}}}));
  EXPECT_EQ(FindAll(ObjectType::Network), (Ids{{"IOC", {"n"}}}));
}

TEST_F(RuleTableTest, KeepsTheProgramsOfProcessRulesInAnIndexOfTheirOwn) {
  InsertProcess("IOC", "sh", "/bin/sh");
  InsertProcess("IOC", "any", "");
  EXPECT_EQ(table_.FindProcessRulesAt("/bin/sh"), (Ids{{"IOC", {"sh"}}}));
  EXPECT_TRUE(Find("/bin/sh").empty()) << "a process rule is none of files";
  table_.Remove("IOC", {ObjectType::Process, "sh"});
  EXPECT_TRUE(table_.FindProcessRulesAt("/bin/sh").empty());
  EXPECT_TRUE(table_.FindProcessRulesAt("sh").empty());
}

TEST_F(RuleTableTest, TakesAProcessRuleThatHasNoPathToAnswerWith) {
  FakeRule rule("1", ObjectType::Process, "", {EventType::ProcessStart});
  rule.path_error = "Fetching path not supported for process rule";
  table_.Insert("IOC", std::make_shared<const FakeRule>(std::move(rule)));
  EXPECT_EQ(FindAll(ObjectType::Process), (Ids{{"IOC", {"1"}}}));
}

TEST_F(RuleTableTest, RefusesTheSecondProcessRuleOnOneName) {
  InsertNamed("IOC", "1", "shell");
  EXPECT_EQ(ErrorOf([&] { InsertNamed("IOC", "2", "shell"); }), "Cannot add more than 1 process rule for 'shell'");
  EXPECT_EQ(FindAll(ObjectType::Process), (Ids{{"IOC", {"1"}}}));
  EXPECT_EQ(ErrorOf([&] { InsertNamed("FIM", "1", "shell"); }), "Cannot add more than 1 process rule for 'shell'")
      << "of whichever tag";
  // The same rule again, or after the first has gone: no second one.
  InsertNamed("IOC", "1", "shell");
  table_.Remove("IOC", {ObjectType::Process, "1"});
  InsertNamed("FIM", "2", "shell");
  EXPECT_EQ(FindAll(ObjectType::Process), (Ids{{"FIM", {"2"}}}));
}

TEST_F(RuleTableTest, SaysWhetherThereAreProcessRules) {
  Insert("FIM", "1", "/etc");
  EXPECT_FALSE(table_.HasProcessRules());
  InsertProcess("FIM", "1", "/bin/sh");
  EXPECT_TRUE(table_.HasProcessRules());
  table_.Remove("FIM", {ObjectType::Process, "1"});
  EXPECT_FALSE(table_.HasProcessRules());
}

TEST_F(RuleTableTest, FindsTheRuleThatAnAuditKeyNames) {
  const std::string uuid = "0f6d7a52-0b52-4f5e-9a3b-0a8a4a1f5c11";
  Insert("FIM", uuid, "/etc");
  Insert("FIM", uuid + "-1", "/link");
  Insert("IOC", uuid, "/etc");
  Insert("FIM", "with blank", "/srv");
  InsertProcess("IOC", "process", "");
  EXPECT_EQ(table_.FindByAuditKey(uuid), (Ids{{"FIM", {uuid}}, {"IOC", {uuid}}}));
  EXPECT_EQ(table_.FindByAuditKey(uuid + "-1"), (Ids{{"FIM", {uuid + "-1"}}}));
  EXPECT_EQ(table_.FindByAuditKey(uuid + "-2"), (Ids{{"FIM", {uuid, uuid + "-1"}}, {"IOC", {uuid}}}));
  EXPECT_EQ(table_.FindByAuditKey("7769746820626C616E6B"), (Ids{{"FIM", {"with blank"}}}));
  for (const char* other : {"", "(null)", "process", "77697", "77zz", "7769"}) {
    EXPECT_TRUE(table_.FindByAuditKey(other).empty()) << other;
  }
  table_.Remove("FIM", {ObjectType::Directory, uuid});
  EXPECT_EQ(table_.FindByAuditKey(uuid), (Ids{{"IOC", {uuid}}}));
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
  table_.Remove("FIM", {ObjectType::File, "e"});
  EXPECT_EQ(table_.WatchedFolders(), (Folders{{"/", true}, {"/etc", false}, {"/srv/data", true}}));
}

TEST_F(RuleTableTest, ACopyHasTheSameRulesAndGoesItsOwnWay) {
  Insert("FIM", "a", "/srv");
  Insert("IOC", "b", "/srv/data");
  InsertNamed("IOC", "shell", "sh");
  const std::shared_ptr<RuleTable> copy = table_.Copy();
  table_.Clear();
  EXPECT_EQ(copy->GetSize(), 3U);
  EXPECT_TRUE(copy->HasProcessRules());
  EXPECT_TRUE(copy->HasAtOrBelow("/srv/data"));
  EXPECT_EQ(copy->FindAt("/srv/data/file"), (Ids{{"FIM", {"a"}}, {"IOC", {"b"}}}));
  EXPECT_EQ(copy->FindByAuditKey("b"), (Ids{{"IOC", {"b"}}}));

  const std::shared_ptr<RuleTable> rest = copy->CopyWithout("IOC");
  EXPECT_EQ(rest->GetSize(), 1U);
  EXPECT_FALSE(rest->HasProcessRules());
  EXPECT_EQ(rest->FindAt("/srv/data/file"), (Ids{{"FIM", {"a"}}}));
}

}  // namespace
}  // namespace zagent::audit::internal
