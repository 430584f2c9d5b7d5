#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "src/ioc/engines/TaggingEngine.h"
#include "tests/src/ioc/config/TestConfig.h"
#include "tests/src/ioc/process/TreeFixture.h"

namespace zagent::ioc::internal {

// Process 50 is a shell of process 1; 60 and 61 are its children.
class TagsFixture : public TreeFixture {
 protected:
  static constexpr std::int32_t kInit = 1;
  static constexpr std::int32_t kShell = 50;
  static constexpr std::int32_t kActor = 60;
  static constexpr std::int32_t kSibling = 61;

  TagsFixture() {
    Exec(kShell, kInit, "/bin/bash");
    Exec(kActor, kShell, "/bin/actor");
    Exec(kSibling, kShell, "/bin/sibling");
  }

  // Of the actor.
  static fakes::FakeEvent File(const std::string& image, edr::EventType type, const std::string& path) {
    fakes::FakeEvent event(type, "File", path);
    event.pid = kActor;
    event.ppid = kShell;
    event.image = common::ImageInfo(image);
    return event;
  }
  static fakes::FakeEvent Rename(const std::string& image, const std::string& from, const std::string& to) {
    fakes::FakeEvent event = File(image, edr::EventType::Rename, from);
    event.new_file = common::ImageInfo(to);
    return event;
  }
  static fakes::FakeEvent Folder(const std::string& image, edr::EventType type, const std::string& path) {
    fakes::FakeEvent event = File(image, type, path);
    event.object_type = edr::ObjectType::Directory;
    return event;
  }
  static fakes::FakeEvent StartOf(const std::string& image, std::vector<std::string> arguments) {
    fakes::FakeEvent event;
    event.type = edr::EventType::ProcessStart;
    event.object_type = edr::ObjectType::Process;
    event.pid = kActor;
    event.ppid = kShell;
    event.image = common::ImageInfo(image);
    event.arguments = std::move(arguments);
    event.cwd = "/srv/here";
    return event;
  }
  static fakes::FakeEvent Connection(const std::string& image, const std::string& address,
                                     edr::EventType type = edr::EventType::Connect) {
    fakes::FakeEvent event;
    event.type = type;
    event.object_type = edr::ObjectType::Network;
    event.pid = kActor;
    event.ppid = kShell;
    event.image = common::ImageInfo(image);
    event.network_address = address;
    event.network_port = 443;
    return event;
  }
  // An object of this mode, in octal digits.
  static common::ImageInfo Object(const std::string& path, std::uint32_t permission) {
    return {"fe:00", permission, 7, path, 0, "root", "root", 0, ""};
  }
  static fakes::FakeEvent Chmod(std::uint32_t from, std::uint32_t to, const std::string& path = "/srv/x") {
    fakes::FakeEvent event = File("/bin/chmod", edr::EventType::AttributeChange, path);
    event.file = Object(path, from);
    event.new_file = Object(path, to);
    return event;
  }

  template <typename Kind>
  [[nodiscard]] std::unique_ptr<Kind> Make(const std::string& more = "") const {
    return std::make_unique<Kind>(*tree_, ParsedJson(R"({"score":10)" + (more.empty() ? "" : "," + more) + "}"));
  }
  // Why it cannot be made.
  template <typename Kind>
  [[nodiscard]] std::string Refusal(const std::string& settings) const {
    try {
      const Kind tag(*tree_, ParsedJson(settings));
    } catch (const std::exception& error) {
      return error.what();
    }
    return "";
  }
  // Under exclusions of this program: of all that it does, or of what concerns the pattern.
  static std::string Excluding(const std::string& program, const std::string& pattern = "") {
    return R"("exclusions":[{"actorProcess":")" + program + "\"" +
           (pattern.empty() ? "" : R"(,"patterns":")" + pattern + "\"") + "}]";
  }
  [[nodiscard]] ProcessInfo& Process(std::int32_t pid) const { return *tree_->Get(pid); }
};

}  // namespace zagent::ioc::internal
