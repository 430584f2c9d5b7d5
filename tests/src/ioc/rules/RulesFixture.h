#pragma once

#include <string>
#include <utility>
#include <vector>

#include "common/src/util/Json.h"
#include "src/ioc/rules/FileRule.h"
#include "src/ioc/rules/NetworkRule.h"
#include "src/ioc/rules/ProcessRule.h"
#include "src/ioc/rules/RuleFault.h"
#include "src/ioc/rules/WhitelistGlobalRule.h"
#include "tests/fakes/LogCapture.h"
#include "tests/src/ioc/config/TestConfig.h"
#include "tests/src/ioc/process/TreeFixture.h"

namespace zagent::ioc::internal {

// A JSON object whose members a test replaces; an empty text leaves the member out.
class ObjectText {
 public:
  explicit ObjectText(std::vector<std::pair<std::string, std::string>> members) : members_(std::move(members)) {}

  [[nodiscard]] ObjectText With(const std::string& key, const std::string& value) const {
    ObjectText other(*this);
    for (auto& member : other.members_) {
      if (member.first != key) continue;
      member.second = value;
      return other;
    }
    other.members_.emplace_back(key, value);
    return other;
  }
  [[nodiscard]] ObjectText Without(const std::string& key) const { return With(key, ""); }
  [[nodiscard]] std::string Text() const {
    std::string text;
    for (const auto& [key, value] : members_) {
      if (!value.empty()) text += (text.empty() ? "\"" : ",\"") + key + "\":" + value;
    }
    return "{" + text + "}";
  }

 private:
  std::vector<std::pair<std::string, std::string>> members_;
};

inline ObjectText FileRuleText() {
  return ObjectText({{"ruleId", R"("f1")"},
                     {"ruleType", R"("File")"},
                     {"imagePath", R"("/etc/passwd")"},
                     {"notify", R"({"File":["write","rename","delete","create"]})"}});
}
inline ObjectText DirectoryRuleText() {
  return ObjectText({{"ruleId", R"("d1")"},
                     {"ruleType", R"("Directory")"},
                     {"imagePath", R"("/etc")"},
                     {"recursiveDepth", R"("All")"},
                     {"notify", R"({"File":["write","rename","delete"],"Directory":["create","delete"]})"}});
}
inline ObjectText ProcessRuleText() {
  return ObjectText(
      {{"ruleId", R"("p1")"}, {"ruleType", R"("Process")"}, {"notify", R"({"process":["create","delete"]})"}});
}
inline ObjectText NetworkRuleText() {
  return ObjectText(
      {{"ruleId", R"("n1")"}, {"ruleType", R"("Network")"}, {"notify", R"({"network":["establish","listen"]})"}});
}
inline ObjectText WhitelistRuleText() {
  return ObjectText({{"ruleId", R"("w1")"},
                     {"ruleType", R"("EDR")"},
                     {"ruleClass", R"("WhitelistGlobal")"},
                     {"imagePath", R"("/usr/bin/apt")"},
                     {"applyTo", R"(["file","process"])"},
                     {"exclusionFilters", R"([{"filterType":["parentProcess"],"parentProcess":["cron"]}])"}});
}

// Process 50 is /usr/sbin/cron, its child 60 the shell that runs the script /opt/job.sh; both are in the tree.
class RulesFixture : public TreeFixture {
 protected:
  static constexpr std::int32_t kCron = 50;
  static constexpr std::int32_t kShell = 60;

  RulesFixture() {
    Exec(kCron, 1, "/usr/sbin/cron");
    auto shell = Start(kShell, kCron, "/bin/dash");
    shell->secondary_image = common::ImageInfo("/opt/job.sh");
    tree_->AddEvent(std::move(shell));
  }

  // Of the shell.
  static fakes::FakeEvent FileEvent(const std::string& path, edr::EventType type = edr::EventType::Write) {
    fakes::FakeEvent event(type, "Write", path);
    event.pid = kShell;
    event.ppid = kCron;
    event.size = 10;
    return event;
  }
  static fakes::FakeEvent RenameEvent(const std::string& from, const std::string& to) {
    fakes::FakeEvent event = FileEvent(from, edr::EventType::Rename);
    event.action = "Rename";
    event.new_file = common::ImageInfo(to);
    return event;
  }
  static fakes::FakeEvent DirectoryEvent(const std::string& path, edr::EventType type) {
    fakes::FakeEvent event = FileEvent(path, type);
    event.object_type = edr::ObjectType::Directory;
    event.file_type = edr::FileType::Directory;
    return event;
  }
  // The shell starts a program.
  static fakes::FakeEvent StartEvent(const std::string& image, edr::EventType type = edr::EventType::ProcessStart) {
    fakes::FakeEvent event;
    event.type = type;
    event.action = "Execve";
    event.object_type = edr::ObjectType::Process;
    event.pid = 70;
    event.ppid = kShell;
    event.image = common::ImageInfo(image);
    return event;
  }
  static fakes::FakeEvent NetworkEvent(const std::string& address, std::uint32_t port,
                                       edr::EventType type = edr::EventType::Connect) {
    fakes::FakeEvent event;
    event.type = type;
    event.action = "Connect";
    event.object_type = edr::ObjectType::Network;
    event.pid = kShell;
    event.ppid = kCron;
    event.image = common::ImageInfo("/bin/dash");
    event.network_address = address;
    event.network_port = port;
    return event;
  }

  [[nodiscard]] FileRule File(const ObjectText& text, std::int64_t max_size = 0) const {
    return {ParsedJson(text.Text()), max_size, *tree_};
  }
  [[nodiscard]] ProcessRule Process(const ObjectText& text, std::int64_t max_size = 0) const {
    return {ParsedJson(text.Text()), max_size, *tree_};
  }
  [[nodiscard]] NetworkRule Network(const ObjectText& text, std::int64_t max_size = 0) const {
    return {ParsedJson(text.Text()), max_size, *tree_};
  }
  [[nodiscard]] WhitelistGlobalRule Whitelist(const ObjectText& text) const {
    return {ParsedJson(text.Text()), *tree_};
  }
};

}  // namespace zagent::ioc::internal
