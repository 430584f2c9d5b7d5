#pragma once

#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/src/util/DeviceText.h"
#include "src/audit/parser/RecordFeed.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/TestData.h"

namespace zagent::ioc::internal {

// What a process does, as a kernel's audit tells it: records of tests/data with the names, modes and numbers of another
// act in them, read by auparse and built by the program's own classes of events. What is started, read or written to
// lies in a folder of the test's own while it is looked at; the events tell it without that folder. Other objects are
// gone by then.
class RecordedActs {
 public:
  struct Actor {
    std::string image;
    std::int32_t pid = 60;
    std::int32_t ppid = 50;
    std::uint32_t auid = 4294967295U;
    std::uint32_t uid = 0;
    std::uint32_t euid = 0;
  };
  using Event = std::unique_ptr<edr::Event>;

  [[nodiscard]] Event Read(const Actor& actor, const std::string& path) const {
    return Confirmed(kOperations, 45, actor, {{"\"/srv/w/h\" inode=101 dev=00:02", ObjectAt(path)}});
  }
  [[nodiscard]] Event Write(const Actor& actor, const std::string& path) const {
    return Confirmed(kOperations, 42, actor, {{"\"/srv/w/h\" inode=101 dev=00:02", ObjectAt(path)}});
  }
  // The mode in octal digits, as in the record.
  [[nodiscard]] Event Create(const Actor& actor, const std::string& path, const std::string& mode = "0640") const {
    return Of(kOperations, 36, actor,
              {{"\"/srv/w/\"", Quoted(FolderOf(path))}, {"\"/srv/w/h\"", Quoted(path)}, {"0100644", "010" + mode}});
  }
  [[nodiscard]] Event MakeFolder(const Actor& actor, const std::string& path) const {
    return Of(kOperations, 27, actor,
              {{"\"/srv/w\" inode", Quoted(FolderOf(path)) + " inode"}, {"\"sub\"", Quoted(path)}});
  }
  [[nodiscard]] Event Delete(const Actor& actor, const std::string& path) const {
    return Of(kOperations, 110, actor, {{"\"/srv/w/\"", Quoted(FolderOf(path))}, {"\"/srv/w/hard\"", Quoted(path)}});
  }
  [[nodiscard]] Event Rename(const Actor& actor, const std::string& from, const std::string& to,
                             const std::string& mode = "0640") const {
    return Of(kOperations, 70, actor,
              {{"\"/srv/w/\"", Quoted(FolderOf(to))},
               {"\"/tmp/\"", Quoted(FolderOf(from))},
               {"\"/srv/w/in\"", Quoted(to)},
               {"\"/tmp/out\"", Quoted(from)},
               {"0100644", "010" + mode}});
  }
  [[nodiscard]] Event Chmod(const Actor& actor, const std::string& path, const std::string& from, unsigned to) const {
    char bits[16];
    std::snprintf(bits, sizeof bits, "a1=%x ", to);
    return Of(kOperations, 89, actor, {{"\"/srv/w/e1\"", Quoted(path)}, {"0100644", "010" + from}, {"a1=180 ", bits}});
  }
  [[nodiscard]] Event Start(const Actor& actor, const std::vector<std::string>& arguments,
                            const std::string& cwd = "/root") const {
    return Confirmed(kProcesses, 33, actor,
                     {{kStartedArguments, ArgumentsOf(arguments)},
                      {"\"/usr/local/bin/process-actor\" inode=25 dev=00:02", ObjectAt(actor.image)},
                      {"cwd=\"/root\"", "cwd=" + Quoted(cwd)}});
  }
  // The kernel starts the interpreter `actor.image` for the script.
  [[nodiscard]] Event StartScript(const Actor& actor, const std::string& script) const {
    return Confirmed(kProcesses, 34, actor,
                     {{"\"/srv/script\" inode=368 dev=00:02", ObjectAt(script)},
                      {"\"/bin/sh\" inode=94 dev=00:02", ObjectAt(actor.image)}});
  }
  // Of the family IPv4, to port 443.
  [[nodiscard]] Event Connect(const Actor& actor, const std::string& address) const {
    return Of(kProcesses, 216, actor, {{"01BB0A010203", "01BB" + HexOf(address)}});
  }
  [[nodiscard]] Event Bind(const Actor& actor, const std::string& address) const {
    return Of(kProcesses, 276, actor, {{"14E90A010203", "14E9" + HexOf(address)}});
  }
  [[nodiscard]] Event Exit(const Actor& actor) const { return Of(kProcesses, 10, actor, {}); }
  [[nodiscard]] Event Abend(const Actor& actor) const {
    return FromText(WithNumber(Text(kOperations, 176), "pid=", std::to_string(actor.pid)));
  }

 private:
  using Changes = std::vector<std::pair<std::string, std::string>>;
  static constexpr const char* kOperations = "audit-operations-6.1.log";
  static constexpr const char* kProcesses = "audit-processes-6.1.log";
  static constexpr const char* kStartedArguments =
      R"(argc=6 a0="process-actor" a1="execve" a2="/srv/script" a3="one" a4=74776F20776F726473 a5="")";

  static std::string Quoted(const std::string& text) { return "\"" + text + "\""; }
  static std::string FolderOf(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }
  static std::string ArgumentsOf(const std::vector<std::string>& arguments) {
    std::string text = "argc=" + std::to_string(arguments.size());
    for (std::size_t i = 0; i < arguments.size(); ++i) text += " a" + std::to_string(i) + "=" + Quoted(arguments[i]);
    return text;
  }
  static std::string HexOf(const std::string& address) {
    unsigned a = 0, b = 0, c = 0, d = 0;
    if (std::sscanf(address.c_str(), "%u.%u.%u.%u", &a, &b, &c, &d) != 4) throw std::runtime_error(address);
    char hex[9];
    std::snprintf(hex, sizeof hex, "%02X%02X%02X%02X", a & 255U, b & 255U, c & 255U, d & 255U);
    return hex;
  }

  // All records of this event.
  static std::string Text(const char* log, unsigned serial) {
    std::ifstream in(fakes::TestData(log));
    const std::string mark = ":" + std::to_string(serial) + "): ";
    std::string text;
    for (std::string line; std::getline(in, line);) {
      if (line.find(mark) != std::string::npos) text += line + "\n";
    }
    if (text.empty()) throw std::runtime_error(std::string("no event ") + std::to_string(serial) + " in " + log);
    return text;
  }
  // Wherever it stands: a change that finds nothing to change is a mistake of the test.
  static void Replace(std::string& text, const std::string& what, const std::string& with) {
    std::size_t at = text.find(what);
    if (at == std::string::npos) throw std::runtime_error("'" + what + "' is not in: " + text);
    for (; at != std::string::npos; at = text.find(what, at + with.size())) text.replace(at, what.size(), with);
  }
  static std::string WithNumber(std::string text, const std::string& field, const std::string& number) {
    const std::size_t at = text.find(" " + field);
    if (at == std::string::npos) throw std::runtime_error("no " + field + " in: " + text);
    const std::size_t begin = at + 1 + field.size();
    return text.replace(begin, text.find(' ', begin) - begin, number);
  }
  static Event Of(const char* log, unsigned serial, const Actor& actor, const Changes& changes) {
    std::string text = Text(log, serial);
    for (const auto& [what, with] : changes) Replace(text, what, with);
    text = WithNumber(text, "exe=", Quoted(actor.image));
    text = WithNumber(text, "pid=", std::to_string(actor.pid));
    text = WithNumber(text, "ppid=", std::to_string(actor.ppid));
    text = WithNumber(text, "auid=", std::to_string(actor.auid));
    text = WithNumber(text, "uid=", std::to_string(actor.uid));
    return FromText(WithNumber(text, "euid=", std::to_string(actor.euid)));
  }
  // Makes the object, and answers what a record says of it.
  [[nodiscard]] std::string ObjectAt(const std::string& path) const {
    std::filesystem::create_directories(std::filesystem::path(root_ + path).parent_path());
    std::ofstream(root_ + path) << "an object";
    struct stat info {};
    if (lstat((root_ + path).c_str(), &info) != 0) throw std::runtime_error(path);
    return Quoted(root_ + path) + " inode=" + std::to_string(info.st_ino) +
           " dev=" + common::util::DeviceText(info.st_dev);
  }
  [[nodiscard]] common::ImageInfo WithoutRoot(const common::ImageInfo& image) const {
    common::ImageInfo bare(image);
    bare.SetPath(image.GetPath().substr(root_.size()));
    return bare;
  }
  [[nodiscard]] Event Confirmed(const char* log, unsigned serial, Actor actor, const Changes& changes) const {
    actor.image = root_ + actor.image;
    const Event event = Of(log, serial, actor, changes);
    auto told = std::make_unique<fakes::FakeEvent>();
    told->type = event->GetType();
    told->action = event->GetAction();
    told->object_type = event->GetObjectType();
    told->id = event->GetId();
    told->uid = event->GetActorUserId();
    told->euid = event->GetActorEuid();
    told->auid = event->GetActorAuid();
    told->pid = event->GetActorProcessId();
    told->ppid = event->GetActorParentProcessId();
    told->timestamp = event->GetTimestamp();
    told->elevated = event->IsElevated();
    told->image = WithoutRoot(*event->GetImage());
    if (event->GetType() == edr::EventType::ProcessStart) {
      told->arguments = event->GetActorProcessArguments();
      told->cwd = event->GetCwd();
    } else {
      told->file = WithoutRoot(*event->GetFile());
    }
    if (event->HasSecondaryImage()) told->secondary_image = WithoutRoot(*event->GetSecondaryImage());
    return told;
  }
  static Event FromText(const std::string& text) {
    audit::internal::FileContext context;
    context.extended_coverage = true;  // what is gone is told all the same
    context.proc_root = "/nowhere";
    audit::IntakeCounters counters;
    audit::internal::RecordFeed feed(audit::internal::MakeEventFactory(std::move(context)), counters);
    feed.Feed(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    feed.Flush();
    audit::internal::Events events = feed.TakeEvents();
    if (events.size() != 1) throw std::runtime_error(std::to_string(events.size()) + " events of: " + text);
    return std::move(events.front());
  }

  const fakes::TempFolder folder_;
  const std::string root_ = std::filesystem::canonical(folder_.Path());
};

}  // namespace zagent::ioc::internal
