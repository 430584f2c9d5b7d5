#include "src/ioc/rules/Manifest.h"

#include <unistd.h>

#include <fstream>
#include <iterator>

#include "tests/fakes/TempFolder.h"
#include "tests/fakes/TestData.h"
#include "tests/src/ioc/rules/RulesFixture.h"

namespace zagent::ioc::internal {
namespace {

using common::util::JsonPlace;

ObjectText ManifestText(const std::string& rules = "[]") {
  return ObjectText({{"policyVersion", R"("2.0.0")"},
                     {"policyId", "7"},
                     {"productId", "null"},
                     {"globalSettings", "{}"},
                     {"rules", rules}});
}

class IocManifestTest : public RulesFixture {
 protected:
  [[nodiscard]] Manifest Parse(const std::string& text) const { return {ParsedJson(text), *tree_}; }
  [[nodiscard]] Manifest Parse(const ObjectText& text) const { return Parse(text.Text()); }
  // What refuses it.
  [[nodiscard]] std::string Refusal(const std::string& text, const JsonPlace& place) const {
    try {
      (void)Parse(text);
    } catch (const ManifestException& error) {
      EXPECT_EQ(error.Place(), place) << text;
      return error.what();
    }
    return "taken";
  }
  [[nodiscard]] std::string Refusal(const ObjectText& text, const JsonPlace& place) const {
    return Refusal(text.Text(), place);
  }
  [[nodiscard]] ObjectText WithSetting(const std::string& key, const std::string& value) const {
    return ManifestText().With("globalSettings", "{\"" + key + "\":" + value + "}");
  }
};

TEST_F(IocManifestTest, WithoutRulesAManifestIsValidAndHasItsDefaults) {
  const fakes::LogCapture log;
  const Manifest manifest = Parse(ManifestText());
  EXPECT_TRUE(manifest.GetRules().empty());
  EXPECT_TRUE(manifest.GetWhitelistGlobalRules().empty());
  EXPECT_TRUE(manifest.GetTaggingSettings().IsObject());
  EXPECT_TRUE(manifest.GetTaggingSettings().ObjectEmpty());
  EXPECT_TRUE(manifest.IsHeuristicsEnabled());
  EXPECT_FALSE(manifest.GetSendMetadata());
  EXPECT_TRUE(manifest.GetKnownProcessPaths().empty());
  EXPECT_EQ(manifest.GetMaxFileSizeToProcess(), 0U);
  EXPECT_FALSE(manifest.HasGatewayUrl());
  EXPECT_EQ(fakes::WhatOf<ManifestException>([&] { (void)manifest.GetGatewayUrl(); }),
            "Gateway URL is not present in the Manifest");
  for (const char* line : {"Reading Manifest", "Reading KnownProcessPaths", "Reading tagging settings"}) {
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, std::string("[IOC]: ") + line)) << line;
  }
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "[IOC]: Tagging is disabled."));
}

TEST_F(IocManifestTest, TheFiltersOfThePageAreFilters) {
  std::ifstream page(fakes::TestData("ioc/filters.json"));
  const std::string filters{std::istreambuf_iterator<char>(page), {}};
  ASSERT_FALSE(filters.empty());
  const Manifest manifest = Parse(ManifestText().With(
      "rules",
      R"([{"ruleId":"r","ruleType":"Directory","imagePath":"/etc","notify":{"File":["write"]},)" + filters + "}]"));
  EXPECT_EQ(manifest.GetRules().size(), 1U);
}

TEST_F(IocManifestTest, EverySettingIsRead) {
  const fakes::LogCapture log;
  const Manifest manifest =
      Parse(ManifestText()
                .With("globalSettings", R"({"maxFileSizeToProcess":50,"gateway_url":"https://g","sendMetadata":true})")
                .With("knownProcessPaths", R"(["/usr/bin/apt","/usr/sbin/cron"])")
                .With("tags", R"({"thresholdScore":10,"Tag":{"score":[1,2,"x"]}})")
                .With("heuristicsEnabled", "false"));
  EXPECT_EQ(manifest.GetMaxFileSizeToProcess(), 50U);
  EXPECT_TRUE(manifest.HasGatewayUrl());
  EXPECT_EQ(manifest.GetGatewayUrl(), "https://g");
  EXPECT_TRUE(manifest.GetSendMetadata());
  EXPECT_EQ(manifest.GetKnownProcessPaths(), (std::vector<std::string>{"/usr/bin/apt", "/usr/sbin/cron"}));
  EXPECT_EQ(common::util::WriteJson(manifest.GetTaggingSettings()),
            R"({"thresholdScore":10,"Tag":{"score":[1,2,"x"]}})");
  EXPECT_FALSE(manifest.IsHeuristicsEnabled());
  EXPECT_FALSE(log.Has("Tagging is disabled."));
}

TEST_F(IocManifestTest, AMissingElementIsNamedInTheOrderOfTheDocument) {
  ObjectText text = ManifestText();
  for (const char* key : {"rules", "globalSettings", "productId", "policyId", "policyVersion"}) {
    text = text.Without(key);
    EXPECT_EQ(Refusal(text, {}), std::string("Missing mandatory element: ") + key);
  }
  for (const char* document : {"[]", "7", "null", R"("manifest")"}) {
    EXPECT_EQ(Refusal(document, {}), "Missing mandatory element: policyVersion") << document;
  }
}

TEST_F(IocManifestTest, OnlyAnOlderMajorVersionIsRefused) {
  for (const char* version : {"2.0.0", "2.", "2.x", "2.0", "3.0.0", "10.1.1", "02.0"}) {
    EXPECT_NO_THROW((void)Parse(ManifestText().With("policyVersion", "\"" + std::string(version) + "\""))) << version;
  }
  for (const char* version : {"1.9.9", "2", "", "0.0", "-2.0", "x.9", ".5", "99999999999999.0"}) {
    const fakes::LogCapture log;
    EXPECT_EQ(Refusal(ManifestText().With("policyVersion", "\"" + std::string(version) + "\""), {"policyVersion"}),
              "Parsing failed. Unsupported manifest version provided")
        << version;
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR,
                        "[IOC]: Manifest version not supported. Supported version: 2.0.0, Provided manifest version: " +
                            std::string(version)))
        << version;
  }
}

TEST_F(IocManifestTest, AVersionThatIsNoNumberIsToldInTheLog) {
  for (const char* version : {"2.x", "x.0", "99999999999999.0"}) {
    const fakes::LogCapture log;
    (void)fakes::WhatOf([&] { (void)Parse(ManifestText().With("policyVersion", "\"" + std::string(version) + "\"")); });
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR,
                        "[IOC]: [\"Exception in converting manifest policyVersion to integer, error: \"]: stoi"))
        << version;
  }
  const fakes::LogCapture log;
  (void)Parse(ManifestText().With("policyVersion", R"("2.1beta.x")"));
  EXPECT_FALSE(log.Has("Exception in converting")) << "read up to the first character that is no digit";
}

TEST_F(IocManifestTest, AValueOfAWrongTypeIsRefusedWithItsKey) {
  for (const char* value : {"2", "null", "[]", "2.0"}) {
    EXPECT_EQ(Refusal(ManifestText().With("policyVersion", value), {"policyVersion"}),
              "Invalid value in manifest for policyVersion: expected a string");
  }
  for (const char* value : {"7", "null", "[]", R"("x")"}) {
    EXPECT_EQ(Refusal(ManifestText().With("globalSettings", value), {"globalSettings"}),
              "Invalid value in manifest for globalSettings: expected an object");
  }
  for (const char* value : {"1", R"("true")", "null", "{}"}) {
    EXPECT_EQ(Refusal(WithSetting("sendMetadata", value), {"globalSettings", "sendMetadata"}),
              "Invalid value in manifest for sendMetadata: expected a bool");
  }
  for (const char* value : {"1.5", R"("50")", "null", "{}", "true", "1e400"}) {
    if (std::string(value) == "1e400") continue;  // no JSON
    EXPECT_EQ(Refusal(WithSetting("maxFileSizeToProcess", value), {"globalSettings", "maxFileSizeToProcess"}),
              "Invalid value in manifest for maxFileSizeToProcess: expected an integer");
  }
  for (const char* value : {"1", "null", "{}", "true"}) {
    EXPECT_EQ(Refusal(WithSetting("gateway_url", value), {"globalSettings", "gateway_url"}),
              "Invalid value in manifest for gateway_url: expected a string");
  }
  for (const char* value : {"7", "null", "{}", R"("/bin/sh")"}) {
    EXPECT_EQ(Refusal(ManifestText().With("knownProcessPaths", value), {"knownProcessPaths"}),
              "knownProcessPaths is not an array of string.");
    EXPECT_EQ(Refusal(ManifestText().With("rules", value), {"rules"}),
              "Parsing failed. 'rules' section is not an array.");
  }
  EXPECT_EQ(Refusal(ManifestText().With("knownProcessPaths", R"(["/bin/sh",7])"), {"knownProcessPaths", "1"}),
            "knownProcessPaths contains non-string value");
}

TEST_F(IocManifestTest, HeuristicsAndTagsOfAWrongTypeAreAsGoodAsNone) {
  for (const char* value : {"0", "null", R"("false")", "[]", "{}"}) {
    EXPECT_TRUE(Parse(ManifestText().With("heuristicsEnabled", value)).IsHeuristicsEnabled()) << value;
  }
  for (const char* value : {"[]", "7", "null", "false"}) {
    const fakes::LogCapture log;
    EXPECT_TRUE(Parse(ManifestText().With("tags", value)).GetTaggingSettings().ObjectEmpty()) << value;
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_INFORMATION, "Tagging is disabled.")) << value;
  }
}

TEST_F(IocManifestTest, TheLimitKeepsTheLowBitsOfAnyInteger) {
  EXPECT_EQ(Parse(WithSetting("maxFileSizeToProcess", "65535")).GetMaxFileSizeToProcess(), 65535U);
  EXPECT_EQ(Parse(WithSetting("maxFileSizeToProcess", "65536")).GetMaxFileSizeToProcess(), 0U);
  EXPECT_EQ(Parse(WithSetting("maxFileSizeToProcess", "65539")).GetMaxFileSizeToProcess(), 3U);
  EXPECT_EQ(Parse(WithSetting("maxFileSizeToProcess", "-1")).GetMaxFileSizeToProcess(), 65535U);
  EXPECT_EQ(Parse(WithSetting("maxFileSizeToProcess", "18446744073709551615")).GetMaxFileSizeToProcess(), 65535U);
}

TEST_F(IocManifestTest, TheLimitIsGivenToEveryRuleInBytes) {
  const auto rule_of = [this](const char* limit) {
    return Parse(WithSetting("maxFileSizeToProcess", limit).With("rules", "[" + FileRuleText().Text() + "]"))
        .GetRules()
        .front();
  };
  fakes::FakeEvent event = FileEvent("/etc/passwd");
  event.size = 3'000LL << 20;
  EXPECT_EQ(rule_of("3000")->Match(event), edr::MatchResult::Matched);
  EXPECT_EQ(rule_of("2999")->Match(event), edr::MatchResult::RefusedByFilter);
  EXPECT_EQ(rule_of("0")->Match(event), edr::MatchResult::Matched);
}

TEST_F(IocManifestTest, TheLimitHoldsForFilesInFoldersAndForProgramsOfProcessesAndConnections) {
  const fakes::TempFolder folder;
  const std::string program = folder.Write("program", "");
  ASSERT_EQ(truncate(program.c_str(), 2LL << 20), 0);
  fakes::FakeEvent file = FileEvent("/etc/ssh/key");
  file.size = 2LL << 20;
  fakes::FakeEvent start = StartEvent(program);
  fakes::FakeEvent connection = NetworkEvent("1.2.3.4", 80);
  connection.image = common::ImageInfo(program);
  for (const auto& [text, event] : std::vector<std::pair<ObjectText, const edr::Event*>>{
           {DirectoryRuleText(), &file}, {ProcessRuleText(), &start}, {NetworkRuleText(), &connection}}) {
    const auto result = [&, rule = text.Text(), event = event](const char* limit) {
      const Manifest manifest = Parse(WithSetting("maxFileSizeToProcess", limit).With("rules", "[" + rule + "]"));
      return manifest.GetRules().front()->Match(*event);
    };
    EXPECT_EQ(result("2"), edr::MatchResult::Matched) << text.Text();
    EXPECT_EQ(result("1"), edr::MatchResult::RefusedByFilter) << text.Text();
    EXPECT_EQ(result("0"), edr::MatchResult::Matched) << text.Text();
  }
}

TEST_F(IocManifestTest, RulesStandInTheOrderOfTheDocumentAndTrustedProgramsApart) {
  const fakes::LogCapture log;
  const Manifest manifest = Parse(ManifestText("[" + NetworkRuleText().Text() + "," + WhitelistRuleText().Text() + "," +
                                               FileRuleText().Text() + "," + ProcessRuleText().Text() + "," +
                                               DirectoryRuleText().Text() + R"(,{"ruleType":"Registry"}])"));
  std::string ids;
  for (const auto& rule : manifest.GetRules()) ids += rule->GetId() + " ";
  EXPECT_EQ(ids, "n1 f1 p1 d1 ");
  ASSERT_EQ(manifest.GetWhitelistGlobalRules().size(), 1U);
  EXPECT_EQ(manifest.GetWhitelistGlobalRules()[0]->GetId(), "w1");
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Parsing Rule: 1"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Parsing Rule: 6"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Registry ruleType is not supported in edr"));
}

TEST_F(IocManifestTest, ARuleWithoutATypeIsRefused) {
  constexpr const char* kNoType = "Parsing failed. 'rule' section does not contain ruleType as string";
  EXPECT_EQ(Refusal(ManifestText("[7]"), {"rules", "0"}), kNoType);
  EXPECT_EQ(Refusal(ManifestText("[{}]"), {"rules", "0"}), kNoType);
  EXPECT_EQ(Refusal(ManifestText(R"([{"ruleType":7}])"), {"rules", "0", "ruleType"}), kNoType);
}

TEST_F(IocManifestTest, OneMalformedRuleRefusesTheManifestAndIsToldWithItsKey) {
  const fakes::LogCapture log;
  EXPECT_EQ(Refusal(ManifestText("[" + FileRuleText().Text() + "," +
                                 DirectoryRuleText().With("recursiveDepth", "3").Text() + "]"),
                    {"rules", "1", "recursiveDepth"}),
            "Rule parsing failed");
  EXPECT_TRUE(
      log.Has(Poco::Message::PRIO_ERROR, "[IOC]: Recursive Depth: string is expected (rule d1, key recursiveDepth)"));
  EXPECT_EQ(Refusal(ManifestText("[" + WhitelistRuleText().With("ruleClass", R"("x")").Text() + "]"),
                    {"rules", "0", "ruleClass"}),
            "Rule parsing failed");
  EXPECT_TRUE(
      log.Has(Poco::Message::PRIO_ERROR, "[IOC]: Invalid ruleClass for EDR rule type (rule w1, key ruleClass)"));
  EXPECT_EQ(Refusal(ManifestText(R"([{"ruleType":"File"}])"), {"rules", "0", "ruleId"}), "Rule parsing failed");
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "[IOC]: Invalid Rule json values (key ruleId)"));
}

TEST_F(IocManifestTest, ADeeplyNestedDocumentIsRefusedBeforeAnythingIsCopied) {
  const std::string deep = R"({"x":)" + std::string(500'000, '[') + std::string(500'000, ']') + "}";
  EXPECT_EQ(Refusal(ManifestText().With("tags", deep), {}), "Manifest is nested too deeply");
}

// Every value of every key, replaced by each kind of value: taken or refused in words, and never anything else.
TEST_F(IocManifestTest, NoValueAnywhereDoesMoreThanRefuseTheManifest) {
  const std::vector<std::string> values = {"",      "null",  "true",   "0",       "-1",        "1.5",
                                           "1e300", R"("")", R"("x")", "[]",      "{}",        "[0]",
                                           "[[]]",  "[{}]",  "[null]", R"([""])", R"({"x":1})"};
  const std::vector<std::pair<std::string, std::vector<std::string>>> places = {
      {"rule",
       {"ruleId", "ruleType", "imagePath", "recursiveDepth", "notify", "inclusionFilters", "exclusionFilters",
        "fileTypeToInclude", "ruleClass", "applyTo"}},
      {"manifest",
       {"policyVersion", "policyId", "productId", "globalSettings", "rules", "tags", "knownProcessPaths",
        "heuristicsEnabled"}},
      {"filter",
       {"filterType", "objectType", "patterns", "actorProcess", "protocol", "localPort", "remotePort", "localIPAddress",
        "remoteIPAddress", "parentProcess"}}};
  const ObjectText filter(
      {{"filterType",
        R"(["objectType","patterns","actorProcess","protocol","localPort","remotePort","localIPAddress","remoteIPAddress","parentProcess"])"},
       {"objectType", R"("File")"},
       {"patterns", R"(["x"])"},
       {"actorProcess", R"(["x"])"},
       {"protocol", R"(["tcp"])"},
       {"localPort", R"({"number":[1]})"},
       {"remotePort", R"({"range":[{"min":1,"max":2}]})"},
       {"localIPAddress", R"(["x"])"},
       {"remoteIPAddress", R"(["x"])"},
       {"parentProcess", R"(["x"])"}});
  const std::vector<ObjectText> rules = {FileRuleText(), DirectoryRuleText(), ProcessRuleText(), NetworkRuleText(),
                                         WhitelistRuleText()};
  int taken = 0;
  int refused = 0;
  const auto try_one = [&](const std::string& text) {
    try {
      (void)Parse(text);
      ++taken;
    } catch (const ManifestException&) {
      ++refused;
    }
  };
  for (const auto& [place, keys] : places) {
    for (const std::string& key : keys) {
      for (const std::string& value : values) {
        if (place == "manifest") try_one(ManifestText().With(key, value).Text());
        for (const ObjectText& rule : rules) {
          if (place == "rule") try_one(ManifestText("[" + rule.With(key, value).Text() + "]").Text());
          if (place != "filter") continue;
          for (const char* section : {"inclusionFilters", "exclusionFilters"}) {
            const std::string filters = "[" + filter.With(key, value).Text() + "]";
            try_one(ManifestText("[" + rule.With(section, filters).Text() + "]").Text());
          }
        }
      }
    }
  }
  EXPECT_GT(taken, 500);
  EXPECT_GT(refused, 500);
}

}  // namespace
}  // namespace zagent::ioc::internal
