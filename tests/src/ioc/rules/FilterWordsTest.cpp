// Each word of `filterType` in each kind of rule that knows it: once right and twice wrong, in both sections; and
// groups of many words against what groups mean.
#include <algorithm>
#include <functional>
#include <memory>
#include <random>

#include "tests/src/ioc/rules/RulesFixture.h"

namespace zagent::ioc::internal {
namespace {

using edr::EventType;
using edr::MatchResult;

class FilterWordsTest : public RulesFixture {
 protected:
  struct Row {
    ObjectText rule;
    std::string word;
    std::string members;  // of the group, beside `filterType`
    fakes::FakeEvent hit;
    fakes::FakeEvent miss;
    std::string wrong;  // members that are refused, with the same words as if there were none
    std::string what;
  };

  [[nodiscard]] std::unique_ptr<edr::EventRule> Make(const ObjectText& text) const {
    const rapidjson::Document json = ParsedJson(text.Text());
    const std::string type = json["ruleType"].GetString();
    if (type == "Process") return std::make_unique<ProcessRule>(json, 0, *tree_);
    if (type == "Network") return std::make_unique<NetworkRule>(json, 0, *tree_);
    if (type == "EDR") return std::make_unique<WhitelistGlobalRule>(json, *tree_);
    return std::make_unique<FileRule>(json, 0, *tree_);
  }
  static std::string Group(const std::string& word, const std::string& members) {
    return R"([{"filterType":[")" + word + "\"]" + (members.empty() ? "" : ",") + members + "}]";
  }
  static fakes::FakeEvent By(std::int32_t pid, fakes::FakeEvent event) {
    event.pid = pid;
    return event;
  }
  static fakes::FakeEvent ChildOf(std::int32_t parent, fakes::FakeEvent event) {
    event.ppid = parent;
    return event;
  }
  static fakes::FakeEvent Running(const std::string& image, fakes::FakeEvent event) {
    event.image = common::ImageInfo(image);
    return event;
  }
  [[nodiscard]] static std::vector<Row> RowsOfPaths(const ObjectText& rule) {
    constexpr const char* kNoObject = "Missing or invalid object type in filterType";
    return {{rule, "objectType", R"("objectType":"File","patterns":["a"])", FileEvent("/etc/a"), FileEvent("/etc/b"),
             R"("objectType":"Files","patterns":["a"])", kNoObject},
            {rule, "objectType", R"("objectType":"Directory","patterns":["/etc/ssh"])", FileEvent("/etc/ssh/key"),
             FileEvent("/etc/key"), R"("objectType":7,"patterns":["a"])", kNoObject},
            {rule, "patterns", R"("objectType":"File","patterns":["a"])", FileEvent("/etc/a"), FileEvent("/etc/b"),
             R"("patterns":["a"])", kNoObject},
            {rule, "actorProcess", R"("actorProcess":["dash"])", By(kShell, FileEvent("/etc/a")),
             By(kCron, FileEvent("/etc/a")), R"("actorProcess":{})", "Missing or invalid actorProcess in filterType"}};
  }
  [[nodiscard]] static std::vector<Row> Rows() {
    std::vector<Row> rows = RowsOfPaths(FileRuleText());
    for (Row& row : RowsOfPaths(DirectoryRuleText())) rows.push_back(std::move(row));
    const ObjectText process = ProcessRuleText();
    rows.push_back({process, "patterns", R"("patterns":["ls"])", StartEvent("/bin/ls"), StartEvent("/bin/cat"),
                    R"("patterns":"ls")", "Missing or invalid patterns in filterType"});
    rows.push_back({process, "actorProcess", R"("actorProcess":["dash"])", ChildOf(kShell, StartEvent("/bin/ls")),
                    ChildOf(kCron, StartEvent("/bin/ls")), R"("actorProcess":7)",
                    "Missing or invalid actorProcess in filterType"});
    const ObjectText network = NetworkRuleText();
    const auto connect = [](const char* address, std::uint32_t port) { return NetworkEvent(address, port); };
    const auto bind = [](const char* address, std::uint32_t port) {
      return NetworkEvent(address, port, EventType::Bind);
    };
    rows.push_back({network, "patterns", R"("patterns":["nc"])", Running("/bin/nc", connect("10.0.0.1", 80)),
                    connect("10.0.0.1", 80), R"("patterns":{})", "Missing or invalid patterns in filterType"});
    rows.push_back({network, "actorProcess", R"("actorProcess":["dash"])", By(kShell, connect("10.0.0.1", 80)),
                    By(kCron, connect("10.0.0.1", 80)), R"("actorProcess":null)",
                    "Missing or invalid actorProcess in filterType"});
    rows.push_back({network, "localPort", R"("localPort":{"number":[22]})", bind("0.0.0.0", 22), bind("0.0.0.0", 23),
                    R"("localPort":[22])", "Missing or invalid localPort in filterType"});
    rows.push_back({network, "remotePort", R"("remotePort":{"range":[{"min":80,"max":90}]})", connect("10.0.0.1", 85),
                    connect("10.0.0.1", 91), R"("remotePort":85)", "Missing or invalid remotePort in filterType"});
    rows.push_back({network, "localIPAddress", R"("localIPAddress":["0\\.0\\.0\\.0"])", bind("0.0.0.0", 22),
                    bind("127.0.0.1", 22), R"("localIPAddress":{})",
                    "Missing or invalid localIPAddress in filterType"});
    rows.push_back({network, "remoteIPAddress", R"("remoteIPAddress":["10\\..*"])", connect("10.0.0.1", 80),
                    connect("11.0.0.1", 80), R"("remoteIPAddress":"10")",
                    "Missing or invalid remoteIPAddress in filterType"});
    return rows;
  }
};

TEST_F(FilterWordsTest, ARightWordIncludesWhatItMeansAndExcludesIt) {
  for (const Row& row : Rows()) {
    const std::string group = Group(row.word, row.members);
    const auto included = Make(row.rule.With("inclusionFilters", group));
    EXPECT_EQ(included->Match(row.hit), MatchResult::Matched) << group;
    EXPECT_EQ(included->Match(row.miss), MatchResult::RefusedByFilter) << group;
    const auto excluded = Make(row.rule.With("exclusionFilters", group));
    EXPECT_EQ(excluded->Match(row.hit), MatchResult::RefusedByFilter) << group;
    EXPECT_EQ(excluded->Match(row.miss), MatchResult::Matched) << group;
  }
}

TEST_F(FilterWordsTest, AWordWithoutItsMemberOrWithAWrongOneIsRefused) {
  const std::vector<std::pair<const char*, const char*>> sections = {
      {"inclusionFilters", "Failed to parse inclusion filters: "},
      {"exclusionFilters", "Failed to parse exclusion filters: "}};
  for (const Row& row : Rows()) {
    for (const auto& [section, failure] : sections) {
      for (const std::string& members : {std::string(), row.wrong}) {
        const ObjectText text = row.rule.With(section, Group(row.word, members));
        EXPECT_EQ(fakes::WhatOf<RuleFault>([&] { (void)Make(text); }), failure + row.what) << text.Text();
      }
    }
  }
}

TEST_F(FilterWordsTest, AProtocolIsReadAndPlaysNoPart) {
  const ObjectText rule = NetworkRuleText();
  const std::string group = Group("protocol", R"("protocol":["udp"])");
  EXPECT_EQ(Make(rule.With("inclusionFilters", group))->Match(NetworkEvent("10.0.0.1", 80)), MatchResult::Matched);
  EXPECT_EQ(Make(rule.With("exclusionFilters", group))->Match(NetworkEvent("10.0.0.1", 80)), MatchResult::Matched);
  EXPECT_EQ(fakes::WhatOf<RuleFault>([&] { (void)Make(rule.With("inclusionFilters", Group("protocol", ""))); }),
            "Failed to parse inclusion filters: Missing or invalid protocol in filterType");
}

TEST_F(FilterWordsTest, AParentIsAWordOfTrustedProgramsAlone) {
  const auto trusts = [&](const std::string& parent) {
    const auto rule = Make(
        WhitelistRuleText().With("exclusionFilters", Group("parentProcess", R"("parentProcess":[")" + parent + "\"]")));
    return rule->Match(Running("/usr/bin/apt", FileEvent("/etc/x"))) != MatchResult::Matched;
  };
  EXPECT_TRUE(trusts("cron"));
  EXPECT_FALSE(trusts("sshd"));
  for (const char* members : {"", R"("parentProcess":"cron")", R"("parentProcess":{})"}) {
    const ObjectText text = WhitelistRuleText().With("exclusionFilters", Group("parentProcess", members));
    EXPECT_EQ(fakes::WhatOf<RuleFault>([&] { (void)Make(text); }),
              "Failed to parse exclusion filters: Missing or invalid parentProcess in filterType")
        << members;
  }
}

// A manifest's groups for a file rule, by dice, and what they mean.
class RolledFilters {
 public:
  explicit RolledFilters(std::mt19937& dice) : dice_(dice) {
    inclusion_ = Roll();
    exclusion_ = Roll();
    type_ = Pick();
  }

  enum class Answer { Yes, No, Absent };  // of a test about the event that the test sends

  [[nodiscard]] ObjectText Text() const {
    ObjectText text = FileRuleText();
    if (!inclusion_.empty()) text = text.With("inclusionFilters", TextOf(inclusion_));
    if (!exclusion_.empty()) text = text.With("exclusionFilters", TextOf(exclusion_));
    if (type_ == Answer::Absent) return text;
    return text.With("fileTypeToInclude", type_ == Answer::Yes ? R"(["TEXT"])" : R"(["elf"])");
  }
  // An unknown type is a test that cannot be made.
  [[nodiscard]] bool Take(bool is_type_known) const {
    const auto holds = [](const auto& group) {
      return std::find(group.begin(), group.end(), Answer::No) == group.end();
    };
    if (std::any_of(exclusion_.begin(), exclusion_.end(), holds)) return false;
    if (is_type_known && type_ == Answer::No) return false;
    return inclusion_.empty() || std::any_of(inclusion_.begin(), inclusion_.end(), holds);
  }

 private:
  using Group = std::vector<Answer>;  // of the path, of the actor
  Answer Pick() { return static_cast<Answer>(dice_() % 3); }
  std::vector<Group> Roll() {
    std::vector<Group> groups(dice_() % 4);
    for (Group& group : groups) group = {Pick(), Pick()};
    return groups;
  }
  static std::string TextOf(const std::vector<Group>& groups) {
    std::string text;
    for (const Group& group : groups) {
      std::string words;
      std::string members;
      if (group[0] != Answer::Absent) {
        words += R"("objectType")";
        members += std::string(R"(,"objectType":"File","patterns":[")") + (group[0] == Answer::Yes ? "x" : "y") + "\"]";
      }
      if (group[1] != Answer::Absent) {
        words += std::string(words.empty() ? "" : ",") + R"("actorProcess")";
        members += std::string(R"(,"actorProcess":[")") + (group[1] == Answer::Yes ? "dash" : "cron") + "\"]";
      }
      text += (text.empty() ? "" : ",") + (R"({"filterType":[)" + words + "]" + members + "}");
    }
    return "[" + text + "]";
  }

  std::mt19937& dice_;
  std::vector<Group> inclusion_;
  std::vector<Group> exclusion_;
  Answer type_ = Answer::Absent;
};

TEST_F(FilterWordsTest, TheFiltersOfAManifestAgreeWithTheirMeaning) {
  std::mt19937 dice(20261122);
  fakes::FakeEvent event = FileEvent("/etc/x");
  int taken = 0;
  for (int i = 0; i < 3'000; ++i) {
    const RolledFilters filters(dice);
    const auto rule = Make(filters.Text());
    for (const bool is_type_known : {true, false}) {
      event.file_type_desc = is_type_known ? "ASCII text" : "";
      const bool expected = filters.Take(is_type_known);
      ASSERT_EQ(rule->Match(event) == MatchResult::Matched, expected) << filters.Text().Text();
      taken += expected ? 1 : 0;
    }
  }
  EXPECT_GT(taken, 600);
  EXPECT_LT(taken, 5'400);
}

}  // namespace
}  // namespace zagent::ioc::internal
