// The schema of manifests that the pages offer and the parser of the daemon are held against each other.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "src/fim/Manifest.h"
#include "tests/src/fim/Json.h"
#include "tools/json-schema/JsonSchema.h"

namespace zagent::fim {
namespace {

using tools::FindSchemaFault;

// A manifest with one rule, whose members a test replaces; an empty text leaves the member out.
class EdgeManifest {
 public:
  EdgeManifest With(const std::string& key, const std::string& value) const {
    EdgeManifest other(*this);
    const auto known = std::find_if(other.members_.begin(), other.members_.end(),
                                    [&](const auto& member) { return member.first == key; });
    if (known != other.members_.end()) {
      known->second = value;
    } else {
      other.members_.emplace_back(key, value);
    }
    return other;
  }
  [[nodiscard]] std::string Text() const {
    std::string rule;
    for (const auto& [key, value] : members_) {
      if (!value.empty()) rule += (rule.empty() ? "\"" : ",\"") + key + "\":" + value;
    }
    return R"({"data":{"fim":{"policyVersion":"1.0","collectHashes":true,"rules":[{)" + rule + "}]}}}";
  }

 private:
  std::vector<std::pair<std::string, std::string>> members_ = {{"ruleId", R"("r")"},
                                                               {"ruleType", R"("directory")"},
                                                               {"imagePath", R"("/etc")"},
                                                               {"recursiveDepth", R"("all")"},
                                                               {"notify", R"(["read"])"}};
};

const std::vector<std::string>& AnyValues() {
  static const std::vector<std::string> kValues = {"",        "null",  "true", "false",  "0",       "-1",
                                                   "1.5",     R"("")", "{}",   "[]",     "[null]",  "[0]",
                                                   R"([""])", "[[]]",  "[{}]", R"("x")", R"(["x"])"};
  return kValues;
}

std::string Quoted(const std::string& text) {
  return "\"" + text + "\"";
}

std::vector<std::string> EdgesOfRules() {
  const EdgeManifest good;
  std::vector<std::string> edges = {good.Text()};
  for (const char* key : {"ruleId", "ruleType", "imagePath", "recursiveDepth", "notify", "inclusionFilters",
                          "exclusionFilters", "trackContentChange", "unknown"}) {
    for (const std::string& value : AnyValues()) {
      edges.push_back(good.With(key, value).Text());
      edges.push_back(good.With("ruleType", R"("file")").With(key, value).Text());
    }
  }
  for (const std::size_t length : {1, 36, 255, 256, 257, 10'000}) {
    edges.push_back(good.With("ruleId", Quoted(std::string(length, 'r'))).Text());
    edges.push_back(good.With("imagePath", Quoted("/" + std::string(length, 'p'))).Text());
  }
  for (const char* path : {"/", "//", "etc", " /etc", "./etc", "/etc/../x", "/\\n", "\\u00e9", "/\\u00e9"}) {
    edges.push_back(good.With("imagePath", Quoted(path)).Text());
  }
  for (const char* depth : {"0", "10", "11", "00", "99999999999999999999999", "-1", "+1", " 1", "1 ", "1.0", "0x1",
                            "ALL", "aLl", "NONE", "nOnE", "alls", "all ", "1\\n", "\\u0661"}) {
    edges.push_back(good.With("recursiveDepth", Quoted(depth)).Text());
    edges.push_back(good.With("ruleType", R"("file")").With("recursiveDepth", Quoted(depth)).Text());
  }
  for (const char* type : {"File", "directory ", "dir", "files"}) {
    edges.push_back(good.With("ruleType", Quoted(type)).Text());
  }
  for (const char* notify :
       {R"(["read","read"])", R"(["Read"])", R"(["read",null])", R"(["modifyMetadata","modifySecuritySettings"])"}) {
    edges.push_back(good.With("notify", notify).Text());
  }
  return edges;
}

std::vector<std::string> EdgesOfFilters() {
  std::vector<std::string> filters;
  const std::vector<std::string> keys = {"objectType",    "patterns",      "actorProcess",
                                         "actorUsername", "timespanStart", "timespanEnd"};
  for (const std::string& key : keys) {
    for (const std::string& value : AnyValues()) {
      if (value.empty()) continue;
      const std::string member = Quoted(key) + ":" + value;
      filters.push_back("{" + member + "}");
      if (key != "actorProcess") filters.push_back(R"({"actorProcess":["vi"],"note":1,)" + member + "}");
      if (key != "objectType") filters.push_back(R"({"objectType":"file",)" + member + "}");
      if (key != "patterns") filters.push_back(R"({"patterns":["x"],)" + member + "}");
    }
  }
  for (const char* type : {"file", "directory", "File", "socket"}) {
    filters.push_back(R"({"objectType":)" + Quoted(type) + R"(,"patterns":["[","\\","*"]})");
    filters.push_back(R"({"objectType":)" + Quoted(type) + R"(,"patterns":[]})");
  }
  for (const char* time : {"00:00:00",    "23:59:59",    "23:59:60",           "23:59:61",     "23:59:62",
                           "24:00:00",    "8:5:1",       " 8: 5: 1",           "8 :05:01",     "08:05:01 ",
                           "008:05:01",   "08:60:01",    "08:005:01",          "8:5",          "8:5:",
                           ":5:1",        "08.05.01",    "-8:05:01",           "+8:05:01",     "08:05:01 PM",
                           "08:05:01\\n", "\\t08:05:01", "\\u000b8:\\f5:\\r1", "8:\\n \\t5:1", "99:99:99"}) {
    // Equal ends are never reversed.
    filters.push_back(R"({"timespanStart":)" + Quoted(time) + R"(,"timespanEnd":)" + Quoted(time) + "}");
    filters.push_back(R"({"timespanStart":)" + Quoted(time) + "}");
    filters.push_back(R"({"timespanEnd":)" + Quoted(time) + "}");
  }
  std::vector<std::string> edges;
  for (const std::string section : {"inclusionFilter", "exclusionFilter"}) {
    const auto add = [&](const std::string& filter) {
      edges.push_back(EdgeManifest().With(section + "s", "[" + filter + "]").Text());
    };
    for (const std::string& filter : filters) {
      add(filter);
      add("{" + Quoted(section) + ":" + filter + "}");
    }
    for (const std::string& value : AnyValues()) {
      if (!value.empty()) add("{" + Quoted(section) + ":" + value + R"(,"actorProcess":["vi"]})");
    }
    add("{" + Quoted(section) + R"(:{"actorProcess":["vi"]},"objectType":"socket"})");
    add(R"({"actorProcess":["vi"]},{})");
    add(R"({"inclusionFilter":{"actorProcess":["vi"]}},{"exclusionFilter":{"actorProcess":["vi"]}})");
  }
  return edges;
}

std::vector<std::string> EdgesOfManifests() {
  std::vector<std::string> edges = {"{}", "[]", "null", "7", R"("data")"};
  for (const std::string& value : AnyValues()) {
    if (value.empty()) continue;
    edges.push_back(R"({"data":)" + value + "}");
    edges.push_back(R"({"data":{"fim":)" + value + "}}");
    for (const std::string key : {"policyVersion", "collectHashes", "rules", "unknown"}) {
      std::string fim;
      for (const auto& [known, good] : std::map<std::string, std::string>{
               {"policyVersion", R"("1.0")"}, {"collectHashes", "false"}, {"rules", "[]"}, {"unknown", "1"}}) {
        fim += (fim.empty() ? "" : ",") + Quoted(known) + ":" + (known == key ? value : good);
      }
      edges.push_back(R"({"data":{"fim":{)" + fim + "}}}");
    }
  }
  for (const char* version : {"1", "1.0 ", "1.00", "2.0", ""}) {
    edges.push_back(R"({"data":{"fim":{"policyVersion":)" + Quoted(version) + R"(,"collectHashes":true,"rules":[]}}})");
  }
  return edges;
}

// What gives its rules: a manifest of another version is taken, and passed over.
bool IsInForce(const std::string& manifest) {
  try {
    return Manifest(Json(manifest).Value()).GetPolicyVersion() == "1.0";
  } catch (const ManifestException&) {
    return false;
  }
}

TEST(ManifestSchemaTest, TheSchemaAndTheParserJudgeEveryEdgeAlike) {
  std::size_t good = 0;
  std::size_t bad = 0;
  for (const std::vector<std::string>& edges : {EdgesOfRules(), EdgesOfFilters(), EdgesOfManifests()}) {
    for (const std::string& manifest : edges) {
      const bool is_in_force = IsInForce(manifest);
      const std::optional<std::string> fault = FindSchemaFault("fim-manifest", manifest);
      EXPECT_EQ(is_in_force, !fault) << manifest << "\n" << fault.value_or("");
      ++(is_in_force ? good : bad);
    }
  }
  EXPECT_GT(good, 150U);
  EXPECT_GT(bad, 500U);
}

// docs/MANIFESTS.md names these.
TEST(ManifestSchemaTest, TheParserRefusesWhatTheSchemaCannotSay) {
  const EdgeManifest good;
  const std::string deep = std::string(40, '[') + std::string(40, ']');
  for (const std::string& manifest : {
           good.With("imagePath", R"("/etc\u0000x")").Text(),
           good.With("inclusionFilters", R"([{"timespanStart":"02:00:00","timespanEnd":"01:00:00"}])").Text(),
           good.With("note", deep).Text(),
       }) {
    EXPECT_FALSE(IsInForce(manifest)) << manifest;
    EXPECT_EQ(FindSchemaFault("fim-manifest", manifest), std::nullopt) << manifest;
  }
}

}  // namespace
}  // namespace zagent::fim
