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

TEST_F(RulePathsTest, GoesRoundAllPlacesInPortions) {
  EXPECT_TRUE(paths_.PlacesAfter("", 3).empty());
  Insert("a", "/a");
  Insert("b", "/b/");
  Insert("b2", "/b", ObjectType::File);
  Insert("c", "/c");
  const auto portion = [this](const std::string& path, std::size_t most) {
    Ids paths;
    for (const WatchedPlace& place : paths_.PlacesAfter(path, most)) paths.push_back(place.path);
    return paths;
  };
  EXPECT_EQ(portion("", 1), (Ids{"/a"}));
  EXPECT_EQ(portion("/a", 1), (Ids{"/b", "/b"})) << "of each path all places";
  EXPECT_EQ(portion("/b", 2), (Ids{"/c", "/a"}));
  EXPECT_EQ(portion("/b", 99), (Ids{"/c", "/a", "/b", "/b"}));
  EXPECT_EQ(paths_.At({ObjectType::File, "/b"}).front().key.id, "b2");
}

}  // namespace
}  // namespace zagent::audit::internal
