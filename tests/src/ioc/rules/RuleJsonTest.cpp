// Each key of a rule's JSON, once right and many times wrong.
#include <functional>

#include "tests/src/ioc/rules/RulesFixture.h"

namespace zagent::ioc::internal {
namespace {

using common::util::JsonPlace;
using edr::EventType;
using edr::EventTypes;

constexpr const char* kInvalid = "Invalid Rule json values";

class RuleJsonTest : public RulesFixture {
 protected:
  struct Wrong {
    ObjectText text;
    std::string what;
    JsonPlace place;
  };

  template <typename Make>
  void ExpectRefused(const std::vector<Wrong>& rows, Make make) {
    for (const Wrong& row : rows) {
      try {
        make(row.text);
        ADD_FAILURE() << "taken: " << row.text.Text();
      } catch (const RuleFault& fault) {
        EXPECT_EQ(std::string(fault.what()), row.what) << row.text.Text();
        EXPECT_EQ(fault.Place(), row.place) << row.text.Text();
      }
    }
  }
  void ExpectFileRefused(const std::vector<Wrong>& rows) {
    ExpectRefused(rows, [this](const ObjectText& text) { (void)File(text); });
  }
  void ExpectProcessRefused(const std::vector<Wrong>& rows) {
    ExpectRefused(rows, [this](const ObjectText& text) { (void)Process(text); });
  }
  void ExpectNetworkRefused(const std::vector<Wrong>& rows) {
    ExpectRefused(rows, [this](const ObjectText& text) { (void)Network(text); });
  }
  void ExpectWhitelistRefused(const std::vector<Wrong>& rows) {
    ExpectRefused(rows, [this](const ObjectText& text) { (void)Whitelist(text); });
  }
};

TEST_F(RuleJsonTest, AFileRuleAnswersWhatItIs) {
  const fakes::LogCapture log;
  const FileRule rule = File(FileRuleText());
  EXPECT_EQ(rule.GetId(), "f1");
  EXPECT_EQ(rule.GetName(), "f1");
  EXPECT_EQ(rule.GetPath(), "/etc/passwd");
  EXPECT_EQ(rule.GetType(), edr::ObjectType::File);
  EXPECT_EQ(rule.GetFileActions(),
            (EventTypes{EventType::Write, EventType::Rename, EventType::Delete, EventType::Create}));
  const auto what = [](const std::function<void()>& ask) { return fakes::WhatOf<edr::EventRuleException>(ask); };
  EXPECT_EQ(what([&] { (void)rule.GetDirectoryActions(); }), "Fetching Directory actions for non-directory rule");
  EXPECT_EQ(what([&] { (void)rule.GetProcessActions(); }), "No process actions defined for file rule");
  EXPECT_EQ(what([&] { (void)rule.GetNetworkActions(); }), "Function not defined for neither file nor directory");
  EXPECT_EQ(what([&] { (void)rule.GetEventType(); }), "Function not defined for file rule");
  for (const char* line : {"Parsing File Rule", "Parsing rule with id: f1", "Rule Type: File",
                           "Reading Inclusion Filters", "Reading Exclusion Filters", "Reading fileTypeToInclude",
                           "Reading notify actions for: File", "Parsed rule with id: f1"}) {
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, std::string("[IOC]: ") + line)) << line;
  }
  EXPECT_FALSE(log.Has("Reading notify actions for: Directory"));
}

TEST_F(RuleJsonTest, ADirectoryRuleHasActionsOfItsOwnForFolders) {
  const FileRule rule = File(DirectoryRuleText());
  EXPECT_EQ(rule.GetType(), edr::ObjectType::Directory);
  EXPECT_EQ(rule.GetFileActions(), (EventTypes{EventType::Write, EventType::Rename, EventType::Delete}));
  EXPECT_EQ(rule.GetDirectoryActions(), (EventTypes{EventType::Create, EventType::Delete}));
}

TEST_F(RuleJsonTest, AProcessRuleAnswersWhatItIs) {
  const fakes::LogCapture log;
  const ProcessRule rule = Process(ProcessRuleText());
  EXPECT_EQ(rule.GetId(), "p1");
  EXPECT_EQ(rule.GetName(), "p1");
  EXPECT_EQ(rule.GetType(), edr::ObjectType::Process);
  EXPECT_EQ(rule.GetProcessActions(),
            (EventTypes{EventType::ProcessStart, EventType::ProcessClone, EventType::ProcessExit}));
  const auto what = [](const std::function<void()>& ask) { return fakes::WhatOf<edr::EventRuleException>(ask); };
  EXPECT_EQ(what([&] { (void)rule.GetDirectoryActions(); }), "Fetching Directory actions for non-directory rule");
  EXPECT_EQ(what([&] { (void)rule.GetFileActions(); }),
            "Fetching File actions for rule that is neither file nor directory");
  EXPECT_EQ(what([&] { (void)rule.GetNetworkActions(); }), "Function not defined for neither process rule");
  EXPECT_EQ(what([&] { (void)rule.GetPath(); }), "Fetching path not supported for process rule");
  EXPECT_EQ(what([&] { (void)rule.GetEventType(); }), "Function not defined for neither process rule");
  for (const char* line : {"Parsing Process rule", "Parsing rule with id: p1",
                           "Reading notify actions for Process rule", "Parsed rule with id: p1"}) {
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, std::string("[IOC]: ") + line)) << line;
  }
}

TEST_F(RuleJsonTest, ANetworkRuleAnswersWhatItIs) {
  const fakes::LogCapture log;
  const NetworkRule rule = Network(NetworkRuleText());
  EXPECT_EQ(rule.GetId(), "n1");
  EXPECT_EQ(rule.GetName(), "n1");
  EXPECT_EQ(rule.GetType(), edr::ObjectType::Network);
  EXPECT_EQ(rule.GetNetworkActions(), (EventTypes{EventType::Connect, EventType::Accept, EventType::Bind}));
  const auto what = [](const std::function<void()>& ask) { return fakes::WhatOf<edr::EventRuleException>(ask); };
  EXPECT_EQ(what([&] { (void)rule.GetDirectoryActions(); }), "Fetching Directory actions for non-directory rule");
  EXPECT_EQ(what([&] { (void)rule.GetFileActions(); }),
            "Fetching File actions for rule that is neither file nor directory");
  EXPECT_EQ(what([&] { (void)rule.GetProcessActions(); }), "No process actions defined for network rule");
  EXPECT_EQ(what([&] { (void)rule.GetPath(); }), "Function not defined for network rule");
  EXPECT_EQ(what([&] { (void)rule.GetEventType(); }), "Function not defined for network rule");
  for (const char* line : {"Parsing Network Rule", "Parsing rule with id: n1",
                           "Reading notify actions for Network rule", "Parsed Network rule with id: n1"}) {
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, std::string("[IOC]: ") + line)) << line;
  }
}

TEST_F(RuleJsonTest, AWhitelistRuleAnswersOnlyWhereItIs) {
  const fakes::LogCapture log;
  const WhitelistGlobalRule rule = Whitelist(WhitelistRuleText());
  EXPECT_EQ(rule.GetId(), "w1");
  EXPECT_EQ(rule.GetName(), "w1");
  EXPECT_EQ(rule.GetPath(), "/usr/bin/apt");
  const auto what = [](const std::function<void()>& ask) { return fakes::WhatOf<edr::EventRuleException>(ask); };
  for (const std::function<void()>& ask : std::vector<std::function<void()>>{
           [&] { (void)rule.GetDirectoryActions(); }, [&] { (void)rule.GetFileActions(); },
           [&] { (void)rule.GetProcessActions(); }, [&] { (void)rule.GetNetworkActions(); },
           [&] { (void)rule.GetEventType(); }}) {
    EXPECT_EQ(what(ask), "Function not defined for whitelistglobal EDR rule");
  }
  for (const char* line : {"Parsing WhitelistGlobal Rule", "Reading applyTo", "Reading Exclusion Filters"}) {
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, std::string("[IOC]: ") + line)) << line;
  }
}

TEST_F(RuleJsonTest, EveryWordOfNotifyIsAnAction) {
  const std::vector<std::pair<std::string, EventTypes>> words = {
      {"create", {EventType::Create}}, {"delete", {EventType::Delete}}, {"rename", {EventType::Rename}},
      {"write", {EventType::Write}},   {"read", {EventType::Read}},     {"attribute", {EventType::AttributeChange}}};
  for (const auto& [word, types] : words) {
    const std::string array = R"(["create",")" + word + R"("])";
    EventTypes expected = types;
    expected.insert(EventType::Create);
    EXPECT_EQ(File(FileRuleText().With("notify", R"({"File":)" + array + "}")).GetFileActions(), expected) << word;
    EXPECT_EQ(File(DirectoryRuleText().With("notify", R"({"Directory":)" + array + "}")).GetDirectoryActions(),
              expected)
        << word;
  }
  const auto of_process = [&](const char* array) {
    return Process(ProcessRuleText().With("notify", R"({"process":)" + std::string(array) + "}")).GetProcessActions();
  };
  EXPECT_EQ(of_process(R"(["create"])"), (EventTypes{EventType::ProcessStart, EventType::ProcessClone}));
  EXPECT_EQ(of_process(R"(["delete"])"), (EventTypes{EventType::ProcessExit}));
  const auto of_network = [&](const char* array) {
    return Network(NetworkRuleText().With("notify", R"({"network":)" + std::string(array) + "}")).GetNetworkActions();
  };
  EXPECT_EQ(of_network(R"(["establish"])"), (EventTypes{EventType::Connect, EventType::Accept}));
  EXPECT_EQ(of_network(R"(["listen"])"), (EventTypes{EventType::Bind}));
  EXPECT_EQ(of_network(R"(["close"])"), EventTypes{});
}

TEST_F(RuleJsonTest, AnUnknownWordOfNotifyIsPassedOver) {
  const fakes::LogCapture log;
  EXPECT_EQ(File(FileRuleText().With("notify", R"({"File":["write","Write"]})")).GetFileActions(),
            EventTypes{EventType::Write});
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Unsupported value: Write provided in notify"));
  EXPECT_TRUE(Process(ProcessRuleText().With("notify", R"({"process":["exec"]})")).GetProcessActions().empty());
  EXPECT_TRUE(log.Has("Unsupported value: exec provided in notify"));
  EXPECT_TRUE(Network(NetworkRuleText().With("notify", R"({"network":["send","close"]})")).GetNetworkActions().empty());
  EXPECT_TRUE(log.Has("Unsupported value: send provided in notify"));
  EXPECT_FALSE(log.Has("Unsupported value: close"));
}

TEST_F(RuleJsonTest, WrongValuesOfAFileRuleAreRefused) {
  const ObjectText good = DirectoryRuleText();
  std::vector<Wrong> rows;
  for (const char* key : {"ruleId", "ruleType", "imagePath"}) {
    for (const char* value : {"", "7", "null", "[]", R"("a\u0000b")"}) {
      rows.push_back({good.With(key, value), kInvalid, {key}});
    }
  }
  for (const char* value : {"", "7", "[]", R"("File")", "null"}) {
    rows.push_back({good.With("notify", value), kInvalid, {"notify"}});
  }
  rows.push_back({good.With("ruleId", R"("")"), kInvalid, {"ruleId"}});
  rows.push_back({good.With("imagePath", R"("")"), "Empty Rule Path for id:d1", {"imagePath"}});
  rows.push_back({good.With("recursiveDepth", "3"), "Recursive Depth: string is expected", {"recursiveDepth"}});
  rows.push_back({good.With("recursiveDepth", "null"), "Recursive Depth: string is expected", {"recursiveDepth"}});
  rows.push_back({good.With("notify", R"({"File":7})"), kInvalid, {"notify", "File"}});
  rows.push_back({good.With("notify", R"({"Directory":{}})"), kInvalid, {"notify", "Directory"}});
  rows.push_back({good.With("notify", R"({"File":["write",7]})"), kInvalid, {"notify", "File", "1"}});
  for (const char* value : {"{}", R"({"File":[]})", R"({"File":["open"],"Directory":[]})"}) {
    rows.push_back({good.With("notify", value), "Invalid rule.No notify action provided for the rule", {"notify"}});
  }
  rows.push_back({FileRuleText().With("notify", R"({"Directory":["delete"]})"),
                  "Invalid rule.No notify action provided for the rule",
                  {"notify"}});
  for (const char* value : {"7", "{}", R"("elf")", "null"}) {
    rows.push_back({good.With("fileTypeToInclude", value),
                    "Failed to parse file type filters: Not an array of fileTypeToInclude filters",
                    {"fileTypeToInclude"}});
  }
  rows.push_back({good.With("fileTypeToInclude", R"(["elf",7])"),
                  "Failed to parse file type filters: Invalid value for FileType patterns",
                  {"fileTypeToInclude", "1"}});
  rows.push_back({good.With("fileTypeToInclude", R"([""])"),
                  "Failed to parse file type filters: FileType Pattern cannot be empty",
                  {"fileTypeToInclude", "0"}});
  ExpectFileRefused(rows);
}

TEST_F(RuleJsonTest, ADepthThatIsNoNumberIsRefusedInTheLibrarysWords) {
  for (const char* depth : {"deep", "-1", "", "1.5", "99999999999"}) {
    const ObjectText text = DirectoryRuleText().With("recursiveDepth", "\"" + std::string(depth) + "\"");
    const std::string what = fakes::WhatOf<RuleFault>([&] { (void)File(text); });
    EXPECT_NE(what.find("Not a valid unsigned integer"), std::string::npos) << depth << ": " << what;
  }
}

TEST_F(RuleJsonTest, WrongValuesOfProcessAndNetworkRulesAreRefused) {
  std::vector<Wrong> rows;
  for (const char* value : {"", "7", "[]", "{}", "null"}) {
    rows.push_back({ProcessRuleText().With("notify", value), kInvalid, {"notify"}});
  }
  rows.push_back({ProcessRuleText().With("ruleId", "7"), kInvalid, {"ruleId"}});
  rows.push_back({ProcessRuleText().With("notify", R"({"process":7})"), kInvalid, {"notify", "process"}});
  rows.push_back({ProcessRuleText().With("notify", R"({"process":["create",null]})"),
                  "Invalid process action in notify",
                  {"notify", "process", "1"}});
  ExpectProcessRefused(rows);
  ExpectNetworkRefused({{NetworkRuleText().Without("ruleId"), kInvalid, {"ruleId"}},
                        {NetworkRuleText().With("notify", R"({"process":["create"]})"), kInvalid, {"notify"}},
                        {NetworkRuleText().With("notify", R"({"network":"listen"})"), kInvalid, {"notify", "network"}},
                        {NetworkRuleText().With("notify", R"({"network":[{}]})"),
                         "Invalid network action in notify",
                         {"notify", "network", "0"}}});
}

TEST_F(RuleJsonTest, WrongValuesOfAWhitelistRuleAreRefused) {
  const ObjectText good = WhitelistRuleText();
  ExpectWhitelistRefused(
      {{good.With("ruleId", "[]"), kInvalid, {"ruleId"}},
       {good.Without("imagePath"), kInvalid, {"imagePath"}},
       {good.With("imagePath", R"("")"), "Empty Rule Path for id:w1", {"imagePath"}},
       {good.Without("applyTo"), "applyTo is not array", {"applyTo"}},
       {good.With("applyTo", R"("file")"), "applyTo is not array", {"applyTo"}},
       {good.With("applyTo", R"(["file","disk"])"), "Invalid value in applyTo: disk", {"applyTo", "1"}},
       {good.With("applyTo", "[7]"), "Invalid value in applyTo: 7", {"applyTo", "0"}}});
  for (const char* value : {"", R"("Whitelist")", "7"}) {
    EXPECT_EQ(fakes::WhatOf<edr::EventException>([&] { (void)Whitelist(good.With("ruleClass", value)); }),
              "Invalid ruleClass for EDR rule type")
        << value;
  }
}

TEST_F(RuleJsonTest, WrongFiltersAreRefused) {
  const std::string in = "Failed to parse inclusion filters: ";
  const std::string out = "Failed to parse exclusion filters: ";
  const auto inclusion = [](const char* value) { return DirectoryRuleText().With("inclusionFilters", value); };
  const auto exclusion = [](const char* value) { return DirectoryRuleText().With("exclusionFilters", value); };
  constexpr const char* kNoTypes = "Missing or invalid filter type array";
  constexpr const char* kNoObject = "Missing or invalid object type in filterType";
  constexpr const char* kNoPatterns = "Missing or invalid patterns in filterType";
  constexpr const char* kNoActor = "Missing or invalid actorProcess in filterType";
  ExpectFileRefused(
      {{inclusion("{}"), in + "Not an array of filters", {"inclusionFilters"}},
       {exclusion("7"), out + "Not an array of filters", {"exclusionFilters"}},
       {inclusion("[7]"), in + kNoTypes, {"inclusionFilters", "0"}},
       {inclusion("[{}]"), in + kNoTypes, {"inclusionFilters", "0"}},
       {exclusion(R"([{"filterType":"patterns"}])"), out + kNoTypes, {"exclusionFilters", "0", "filterType"}},
       {exclusion(R"([{"filterType":[7]}])"), out + kNoTypes, {"exclusionFilters", "0", "filterType", "0"}},
       {inclusion(R"([{"filterType":["objectType"]}])"), in + kNoObject, {"inclusionFilters", "0"}},
       {inclusion(R"([{"filterType":["patterns"],"patterns":["x"]}])"), in + kNoObject, {"inclusionFilters", "0"}},
       {inclusion(R"([{"filterType":["objectType"],"objectType":"file","patterns":[]}])"),
        in + kNoObject,
        {"inclusionFilters", "0", "objectType"}},
       {inclusion(R"([{"filterType":["objectType"],"objectType":7,"patterns":[]}])"),
        in + kNoObject,
        {"inclusionFilters", "0", "objectType"}},
       {inclusion(R"([{"filterType":["objectType"],"objectType":"File"}])"),
        in + kNoPatterns,
        {"inclusionFilters", "0"}},
       {inclusion(R"([{"filterType":["objectType"],"objectType":"Directory","patterns":"x"}])"),
        in + kNoPatterns,
        {"inclusionFilters", "0", "patterns"}},
       {inclusion(R"([{"filterType":["objectType"],"objectType":"File","patterns":["x",7]}])"),
        in + "Invalid value for filter patterns",
        {"inclusionFilters", "0", "patterns", "1"}},
       {inclusion(R"([{"filterType":["objectType"],"objectType":"File","patterns":[""]}])"),
        in + "Filter pattern cannot be empty",
        {"inclusionFilters", "0", "patterns", "0"}},
       {exclusion(R"([{"filterType":[]},{"filterType":["actorProcess"]}])"), out + kNoActor, {"exclusionFilters", "1"}},
       {exclusion(R"([{"filterType":["actorProcess"],"actorProcess":"sh"}])"),
        out + kNoActor,
        {"exclusionFilters", "0", "actorProcess"}}});
  ExpectProcessRefused({{ProcessRuleText().With("inclusionFilters", R"([{"filterType":["patterns"]}])"),
                         in + kNoPatterns,
                         {"inclusionFilters", "0"}}});
  ExpectWhitelistRefused({{WhitelistRuleText().With("exclusionFilters", R"([{"filterType":["parentProcess"]}])"),
                           out + "Missing or invalid parentProcess in filterType",
                           {"exclusionFilters", "0"}}});
}

TEST_F(RuleJsonTest, WrongNetworkFiltersAreRefused) {
  const auto filter = [](const std::string& type, const std::string& value) {
    return NetworkRuleText().With("inclusionFilters", R"([{"filterType":[")" + type + R"("])" +
                                                          (value.empty() ? "" : ",\"" + type + "\":" + value) + "}]");
  };
  const std::string in = "Failed to parse inclusion filters: ";
  const JsonPlace group = {"inclusionFilters", "0"};
  std::vector<Wrong> rows;
  for (const char* type :
       {"localPort", "remotePort", "localIPAddress", "remoteIPAddress", "protocol", "patterns", "actorProcess"}) {
    const std::string missing = in + "Missing or invalid " + type + " in filterType";
    rows.push_back({filter(type, ""), missing, group});
    rows.push_back({filter(type, "7"), missing, {"inclusionFilters", "0", type}});
    rows.push_back({filter(type, "null"), missing, {"inclusionFilters", "0", type}});
  }
  for (const char* type : {"localPort", "remotePort"}) {
    constexpr const char* kInvalidPort = "Invalid Port numbers in manifest";
    rows.push_back({filter(type, "{}"), in + "Empty port object in manifest", {"inclusionFilters", "0", type}});
    rows.push_back(
        {filter(type, "[80]"), in + "Missing or invalid " + type + " in filterType", {"inclusionFilters", "0", type}});
    for (const char* number : {"65536", "-1", "1.5", R"("80")", "4294967376", "null"}) {
      rows.push_back({filter(type, R"({"number":[80,)" + std::string(number) + "]}"),
                      in + kInvalidPort,
                      {"inclusionFilters", "0", type, "number", "1"}});
      rows.push_back({filter(type, R"({"range":[{"min":1,"max":)" + std::string(number) + "}]}"),
                      in + kInvalidPort,
                      {"inclusionFilters", "0", type, "range", "0"}});
    }
    rows.push_back({filter(type, R"({"number":80})"), in + kInvalidPort, {"inclusionFilters", "0", type, "number"}});
    rows.push_back(
        {filter(type, R"({"range":{"min":1,"max":2}})"), in + kInvalidPort, {"inclusionFilters", "0", type, "range"}});
    rows.push_back(
        {filter(type, R"({"range":[{"max":2}]})"), in + kInvalidPort, {"inclusionFilters", "0", type, "range", "0"}});
    rows.push_back(
        {filter(type, R"({"range":[7]})"), in + kInvalidPort, {"inclusionFilters", "0", type, "range", "0"}});
  }
  rows.push_back({filter("remoteIPAddress", "[7]"),
                  in + "Invalid value for filter patterns",
                  {"inclusionFilters", "0", "remoteIPAddress", "0"}});
  rows.push_back({filter("protocol", "[7]"),
                  in + "Missing or invalid protocol in filterType",
                  {"inclusionFilters", "0", "protocol", "0"}});
  ExpectNetworkRefused(rows);
  const std::string what =
      fakes::WhatOf<RuleFault>([&] { (void)Network(filter("localIPAddress", R"(["10..*","("])")); });
  EXPECT_EQ(what.rfind(in + "Invalid IP address pattern: ", 0), 0U) << what;
}

TEST_F(RuleJsonTest, AWordOfAnotherKindOfRuleIsPassedOver) {
  const fakes::LogCapture log;
  const char* filters = R"([{"filterType":["parentProcess","remotePort","colour"]}])";
  // A group of which nothing is left holds for everything.
  EXPECT_EQ(File(FileRuleText().With("exclusionFilters", filters)).Match(FileEvent("/etc/passwd")),
            edr::MatchResult::RefusedByFilter);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Unsupported value: parentProcess provided in filterType"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Unsupported value: remotePort provided in filterType"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Unsupported value: colour provided in filterType"));
  (void)Process(ProcessRuleText().With("inclusionFilters", R"([{"filterType":["objectType"]}])"));
  EXPECT_TRUE(log.Has("Unsupported value: objectType provided in filterType"));
  (void)Network(NetworkRuleText().With("inclusionFilters", R"([{"filterType":["user"]}])"));
  EXPECT_TRUE(log.Has("Unsupported value: user provided in filterType"));
  (void)Whitelist(WhitelistRuleText().With("exclusionFilters", R"([{"filterType":["actorProcess"]}])"));
  EXPECT_TRUE(log.Has("Unsupported value: actorProcess provided in filterType"));
}

TEST_F(RuleJsonTest, AnObjectAndItsPatternsAreOneCriterion) {
  const fakes::LogCapture log;
  (void)File(FileRuleText().With(
      "inclusionFilters",
      R"([{"filterType":["patterns","objectType","patterns"],"objectType":"File","patterns":["x"]}])"));
  EXPECT_EQ(log.Count("Setting File Patterns"), 1);
}

TEST_F(RuleJsonTest, AllNetworkWordsOfAGroupAreOneCriterionToldOnce) {
  const fakes::LogCapture log;
  (void)Network(NetworkRuleText().With(
      "exclusionFilters",
      R"([{"filterType":["protocol","remotePort","actorProcess"],"protocol":["tcp"],"remotePort":{"number":[80]},
          "actorProcess":["nc"]}])"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Parsing Network Filter"));
  EXPECT_EQ(log.Count("Parsing Network Filter"), 1);
}

TEST_F(RuleJsonTest, ALocalAddressIsHeldAgainstListening) {
  const NetworkRule rule = Network(NetworkRuleText().With(
      "inclusionFilters", R"([{"filterType":["localIPAddress"],"localIPAddress":["0\\.0\\.0\\.0"]}])"));
  EXPECT_EQ(rule.Match(NetworkEvent("0.0.0.0", 22, EventType::Bind)), edr::MatchResult::Matched);
  EXPECT_EQ(rule.Match(NetworkEvent("127.0.0.1", 22, EventType::Bind)), edr::MatchResult::RefusedByFilter);
  EXPECT_EQ(rule.Match(NetworkEvent("127.0.0.1", 22)), edr::MatchResult::Matched);
}

TEST_F(RuleJsonTest, APathIsTidiedAsTheKernelKnowsIt) {
  const auto path = [this](const char* text) {
    return File(DirectoryRuleText().With("imagePath", "\"" + std::string(text) + "\"")).GetPath();
  };
  EXPECT_EQ(path("/etc/"), "/etc");
  EXPECT_EQ(path("/etc//ssh/.///"), "/etc/ssh");
  EXPECT_EQ(path("/"), "/");
  EXPECT_EQ(path("///"), "/");
  EXPECT_EQ(path("/etc/ssl/../ssh"), "/etc/ssl/../ssh");
  EXPECT_EQ(path("etc/"), "etc") << "whether it can be watched is another matter";
}

}  // namespace
}  // namespace zagent::ioc::internal
