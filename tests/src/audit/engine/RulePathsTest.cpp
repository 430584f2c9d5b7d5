#include "src/audit/engine/RulePaths.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/fakes/FakeRule.h"

namespace zagent::audit::internal {
namespace {

using edr::ObjectType;
using fakes::FakeRule;
using Ids = std::vector<std::string>;

class RulePathsTest : public ::testing::Test {
 protected:
  void Insert(const std::string& id, const std::string& path, ObjectType type = ObjectType::Directory) {
    paths_.Insert({"FIM", {type, id}}, FakeRule(id, type, path, {}));
  }
  [[nodiscard]] Ids Find(const std::string& path) const {
    Ids ids;
    for (const RuleAddress& address : paths_.AtOrBelow(path)) ids.push_back(address.key.id);
    std::sort(ids.begin(), ids.end());
    return ids;
  }

  RulePaths paths_;
};

TEST_F(RulePathsTest, FindsWhatLiesAtAPathAndBelowIt) {
  Insert("a", "/srv");
  Insert("b", "/srv/data/");
  Insert("c", "/srv//data/./file", ObjectType::File);
  Insert("d", "/srv-old");
  Insert("e", "/srv.d/x");
  EXPECT_EQ(Find("/srv"), (Ids{"a", "b", "c"}));
  EXPECT_EQ(Find("/srv/data"), (Ids{"b", "c"}));
  EXPECT_EQ(Find("/srv/da"), Ids());
  EXPECT_EQ(Find("/"), (Ids{"a", "b", "c", "d", "e"}));
}

TEST_F(RulePathsTest, FindsARuleOnTheRootOnce) {
  Insert("root", "/");
  EXPECT_EQ(Find("/"), Ids{"root"});
  EXPECT_EQ(Find("/srv"), Ids());
}

TEST_F(RulePathsTest, ForgetsRules) {
  Insert("a", "/srv");
  Insert("a", "/srv");
  Insert("b", "/srv");
  paths_.Remove({"FIM", {ObjectType::Directory, "a"}}, FakeRule("a", ObjectType::Directory, "/srv", {}));
  EXPECT_EQ(Find("/srv"), Ids{"b"});
  paths_.Clear();
  EXPECT_EQ(Find("/srv"), Ids());
}

TEST_F(RulePathsTest, PassesOverRulesWithoutAPath) {
  Insert("a", "/bin/sh", ObjectType::Process);
  EXPECT_EQ(Find("/"), Ids());
}

}  // namespace
}  // namespace zagent::audit::internal
