// The starts, ends and sockets of processes of a real 6.1 kernel, through auparse to the program's own event classes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "common/src/util/DeviceText.h"
#include "src/audit/parser/RecordFeed.h"
#include "src/edr/process/ImageInfo.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/TestData.h"

namespace zagent::audit::internal {
namespace {

using Outcome = std::vector<std::string>;

void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

std::string Hex(const std::string& text) {
  std::string hex;
  for (const unsigned char byte : text) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02X", byte);
    hex += digits;
  }
  return hex;
}

std::string Joined(const std::vector<std::string>& words) {
  if (words.size() > 20) return std::to_string(words.size()) + " arguments";
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
  return text;
}

// One event of the log.
struct AuditEvent {
  std::string records;
  std::string step;  // which it belongs to; empty for the events of the shell that took the steps
};

// The recorded programs lie in a folder of the test's own; the records' inodes are those of these files.
class RealProcessesTest : public ::testing::Test {
 protected:
  IntakeCounters counters_;

  RealProcessesTest() {
    for (const char* folder : {"bin", "usr", "usr/local", "usr/local/bin", "srv", "srv/with blank", "root"}) {
      EXPECT_EQ(mkdir((root_ / folder).c_str(), 0755), 0);
    }
    Program("bin/busybox", 94);
    Program("usr/local/bin/process-actor", 25);
    Program("usr/local/bin/audit-recorder", 22);
    Program("srv/script", 368);
    Program("srv/script-of-script", 369);
    Program("srv/with blank/quo\"te", 371);
    EXPECT_EQ(symlink("busybox", (root_ / "bin/sh").c_str()), 0);
    EXPECT_EQ(symlink((root_ / "usr/local/bin/process-actor").c_str(), (root_ / "srv/link").c_str()), 0);
    inodes_[372] = "srv/link";
  }

  std::string Records() const {
    std::ifstream in(fakes::TestData("audit-processes-6.1.log"), std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(in), {}};
    EXPECT_FALSE(text.empty());
    // The test's own folder may lie in one of these, so its name comes last.
    for (const std::string folder : {"/bin", "/usr/local", "/srv", "/root"}) {
      ReplaceAll(text, "\"" + folder, "\"\1" + folder);
      ReplaceAll(text, "=" + Hex(folder), "=\2" + Hex(folder));
    }
    ReplaceAll(text, "\1", root_.Path());
    ReplaceAll(text, "\2", Hex(root_.Path()));
    for (const auto& [inode, name] : inodes_) {
      struct stat disk {};
      EXPECT_EQ(lstat((root_ / name).c_str(), &disk), 0) << name;
      ReplaceAll(text, " inode=" + std::to_string(inode) + " dev=00:02 ",
                 " inode=" + std::to_string(disk.st_ino) + " dev=" + common::util::DeviceText(disk.st_dev) + " ");
    }
    return text;
  }

  // The events as the kernel counted them. A step's are those of the process that the shell starts for it, and of that
  // process's children.
  std::vector<AuditEvent> AuditEvents() const {
    static const std::regex kSerial(R"(msg=audit\([0-9.]+:(\d+)\))");
    static const std::regex kStep("msg='step: (.*) exe=");
    static const std::regex kShellsChild(" syscall=56 success=yes exit=(\\d+) .* pid=96 ");
    std::map<int, std::string> by_serial;
    std::istringstream lines(Records());
    for (std::string line; std::getline(lines, line);) {
      std::smatch match;
      if (std::regex_search(line, match, kSerial)) by_serial[std::stoi(match[1])] += line + "\n";
    }
    std::vector<AuditEvent> events;
    std::string step;
    std::string process;
    for (const auto& [serial, records] : by_serial) {
      events.push_back({records, ""});
      const std::string first = records.substr(0, records.find('\n'));
      std::smatch match;
      // Each step's process is the first that the shell starts behind the mark.
      if (std::regex_search(first, match, kStep)) {
        step = match[1];
        process.clear();
      } else if (process.empty() && std::regex_search(first, match, kShellsChild)) {
        process = match[1];
      } else if (!process.empty()) {
        const bool own = first.find(" pid=" + process + " ") != std::string::npos;
        const bool childs = first.find(" ppid=" + process + " ") != std::string::npos;
        if (own || childs) events.back().step = step;
      }
    }
    return events;
  }

  // What becomes of each step, event by event. Paths are shown without the folder of the test.
  std::map<std::string, Outcome> Run(bool extended_coverage = false) {
    std::map<std::string, Outcome> outcome;
    FileContext context;
    context.extended_coverage = extended_coverage;
    RecordFeed feed(MakeEventFactory(std::move(context)), counters_);
    for (const AuditEvent& event : AuditEvents()) {
      const fakes::LogCapture log;
      const Outcome lines = Feed(feed, event.records);
      if (event.step.empty()) continue;
      Outcome& step = outcome[event.step];
      step.insert(step.end(), lines.begin(), lines.end());
      for (const Poco::Message& line : log.Lines()) {
        const std::string& text = line.getText();
        for (const char* told : {"Dropping event: ", "Unsupported syscall in event: ", "Ignoring event"}) {
          if (const std::size_t at = text.find(told); at != std::string::npos) step.push_back(Short(text.substr(at)));
        }
      }
    }
    return outcome;
  }

  Outcome Feed(RecordFeed& feed, const std::string& text) const {
    feed.Feed(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    feed.Flush();
    Outcome lines;
    for (const auto& event : feed.TakeEvents()) lines.push_back(Short(Line(*event)));
    return lines;
  }

  fakes::TempFolder root_;

 private:
  void Program(const std::string& name, int recorded_inode) {
    EXPECT_EQ(chmod(root_.Write(name, "a program").c_str(), 0755), 0);
    inodes_[recorded_inode] = name;
  }

  static std::string Line(const edr::Event& event) {
    const std::string action = event.GetAction() + (event.IsSuccessful() ? " " : " (failed) ");
    switch (event.GetType()) {
      case edr::EventType::ProcessStart: {
        const std::string script = event.HasSecondaryImage() ? " of " + event.GetSecondaryImage()->GetPath() : "";
        return action + event.GetImage()->GetPath() + script + ": " + Joined(event.GetActorProcessArguments());
      }
      case edr::EventType::ProcessClone:
        return action + event.GetImage()->GetPath() + " " + std::to_string(event.GetActorParentProcessId()) + " -> " +
               std::to_string(event.GetActorProcessId());
      case edr::EventType::AbnormalEnd:
        return action + std::to_string(event.GetActorProcessId());
      case edr::EventType::ProcessExit:
        return action + event.GetImage()->GetPath();
      default:
        return action + event.GetNetworkAddress() + " " + std::to_string(event.GetNetworkPort());
    }
  }

  std::string Short(std::string line) const {
    ReplaceAll(line, root_.Path(), "");
    return line;
  }

  std::map<int, std::string> inodes_;  // as recorded, of what
};

constexpr const char* kActor = "/usr/local/bin/process-actor";

// The step's own process: what it was called with, what it did, and its end.
Outcome OfActor(const std::string& arguments, const Outcome& did) {
  Outcome lines = {std::string("Execve ") + kActor + ": process-actor " + arguments};
  lines.insert(lines.end(), did.begin(), did.end());
  lines.push_back(std::string("Exit ") + kActor);
  return lines;
}

// The step's own process runs another program.
Outcome OfExec(const std::string& arguments, const Outcome& did) {
  Outcome lines = {std::string("Execve ") + kActor + ": process-actor " + arguments};
  lines.insert(lines.end(), did.begin(), did.end());
  return lines;
}

std::string CloneBy(const std::string& parent_and_child, const std::string& image = kActor) {
  return "Clone " + image + " " + parent_and_child;
}

TEST_F(RealProcessesTest, EveryStepBecomesItsEvents) {
  const std::string exit = "Exit /bin/busybox";
  const std::string actor_exit = std::string("Exit ") + kActor;
  const std::string odd = "/srv/with blank/quo\"te";
  const std::map<std::string, Outcome> expected = {
      {"execve of a program", OfExec("execve /bin/busybox true", {"Execve /bin/busybox: /bin/busybox true", exit})},
      // An empty argument is left out.
      {"execve of a script", OfExec("execve /srv/script one two words",
                                    {"Execve /bin/busybox of /srv/script: /bin/sh /srv/script one two words", exit})},
      {"execve of a script whose interpreter is a script",
       OfExec("execve /srv/script-of-script",
              {"Execve /bin/busybox of /srv/script-of-script: /bin/sh /srv/script /srv/script-of-script", exit})},
      {"execve by a symbolic link",
       OfExec("execve /srv/link clone",
              {std::string("Execve ") + kActor + ": /srv/link clone", CloneBy("420 -> 421"), actor_exit, actor_exit})},
      // Quotes are taken out of the image's name, which leads nowhere then.
      {"execve of a program with a blank and a quote in its name",
       OfExec("execve " + odd + " clone",
              {"Dropping event: Missing or invalid path for Running event",
               "Dropping event: Failed to stat /srv/with blank/quote (No such file or directory (2))",
               "Exit /srv/with blank/quote", "Exit /srv/with blank/quote"})},
      // Of the first 255, the two at the ends of records came in pieces ("a97[0]"), as the next one does.
      {"execve of 300 long arguments",
       {std::string("Execve ") + kActor + ": 253 arguments", "Execve /bin/busybox: 253 arguments", exit}},
      // The kernel cuts a long argument into pieces: none of them is the argument.
      {"execve of one argument of 20000 bytes",
       OfExec("execve /bin/busybox true", {"Execve /bin/busybox: /bin/busybox true", exit})},
      {"execve of arguments with a quote, a line break and bytes that are no UTF-8",
       OfExec("execve /bin/busybox true a\"b two\nlines x\xff\xfey",
              {"Execve /bin/busybox: /bin/busybox true a\"b two\nlines x\xff\xfey", exit})},
      {"execve relative to the working folder",
       {std::string("Execve ") + kActor + ": bin/process-actor execve bin/process-actor clone",
        std::string("Execve ") + kActor + ": bin/process-actor clone", CloneBy("439 -> 440"), actor_exit, actor_exit}},
      {"execve that fails",
       OfActor("execve /srv/nothing", {"Dropping event: Cannot create PathRecord without inode information"})},
      {"execveat", OfExec("execveat /bin/busybox true", {"Unsupported syscall in event: 322", exit})},
      {"fork", OfActor("fork", {CloneBy("449 -> 450"), actor_exit})},
      // The child ends before its parent's call does.
      {"vfork", OfActor("vfork", {actor_exit, CloneBy("453 -> 454")})},
      {"clone", OfActor("clone", {CloneBy("457 -> 458"), actor_exit})},
      {"clone3", OfActor("clone3", {"Unsupported syscall in event: 435", actor_exit})},
      {"clone of a thread", OfActor("thread", {"Dropping event: Thread events are not tracked"})},
      {"exit_group with code 3", {"Execve /bin/busybox: sh -c exit 3", exit}},
      {"an abnormal end by SIGSEGV", OfExec("crash", {"Abort 472"})},
      {"connect over IPv4", OfActor("connect 10.1.2.3 443", {"Connect 10.1.2.3 443"})},
      {"connect over IPv6", OfActor("connect 2001:db8::7 8443", {"Connect 2001:db8::7 8443"})},
      {"connect to loopback over IPv4",
       OfActor("connect 127.1.2.3 443", {"Dropping event: Found Loopback address: 127.1.2.3"})},
      {"connect to loopback over IPv6", OfActor("connect ::1 443", {"Dropping event: Found Loopback address: ::1"})},
      {"connect to any address", OfActor("connect 0.0.0.0 443", {"Dropping event: Found Loopback address: 0.0.0.0"})},
      {"connect to nobody over UNIX",
       OfActor("connect-unix /srv/nobody", {"Dropping event: Unsupported family in Network event: local"})},
      {"bind over IPv4", OfActor("bind 10.1.2.3 5353", {"Bind 10.1.2.3 5353"})},
      {"bind over IPv6", OfActor("bind 2001:db8::7 5353", {"Bind 2001:db8::7 5353"})},
      {"bind to any address", OfActor("bind 0.0.0.0 5354", {"Dropping event: Found Loopback address: 0.0.0.0"})},
      {"bind to port 0", OfActor("bind 10.1.2.3 0", {"Dropping event: Port unavailable in Network event"})},
      {"bind over UNIX",
       OfActor("bind-unix /srv/socket", {"Dropping event: Unsupported family in Network event: local"})},
      {"bind, connect and a refused connect over TCP",
       OfActor("listen 10.1.2.3 7443",
               {"Bind 10.1.2.3 7443", "Connect 10.1.2.3 7443", "Connect (failed) 10.1.2.3 7443"})},
      {"32-bit fork", OfActor("compat-fork", {CloneBy("511 -> 512"), actor_exit})},
      {"32-bit execve", OfExec("compat-execve /bin/busybox true", {"Execve /bin/busybox: /bin/busybox true", exit})},
      {"32-bit connect", OfActor("compat-connect 10.1.2.3 443", {"Connect 10.1.2.3 443"})},
      {"32-bit connect by socketcall", OfActor("compat-socketcall 10.1.2.3 443", {"Connect 10.1.2.3 443"})},
      {"32-bit exit_group", OfExec("compat-exit 0", {actor_exit})},
      {"the end", {exit}},
  };
  const std::map<std::string, Outcome> outcome = Run();
  for (const auto& [step, lines] : expected) {
    const auto found = outcome.find(step);
    ASSERT_NE(found, outcome.end()) << step;
    EXPECT_EQ(found->second, lines) << step;
  }
  EXPECT_EQ(outcome.size(), expected.size());
}

TEST_F(RealProcessesTest, WithExtendedCoverageExecveatStartsAProgramLikeExecve) {
  std::map<std::string, Outcome> expected = Run();
  expected["execveat"] =
      OfExec("execveat /bin/busybox true", {"Execve /bin/busybox: /bin/busybox true", "Exit /bin/busybox"});
  const std::map<std::string, Outcome> outcome = Run(true);
  for (const auto& [step, lines] : outcome) EXPECT_EQ(lines, expected[step]) << step;
  EXPECT_EQ(outcome.size(), expected.size());
}

// Events arrive interleaved and out of order, as the kernel wrote them, and in pieces as the socket gives them.
TEST_F(RealProcessesTest, TheLogAsAWholeHoldsTheSameEvents) {
  RecordFeed one_by_one(MakeEventFactory({}), counters_);
  Outcome expected;
  for (const AuditEvent& event : AuditEvents()) {
    for (const std::string& line : Feed(one_by_one, event.records)) expected.push_back(line);
  }
  ASSERT_GT(expected.size(), 200U);

  const std::string text = Records();
  RecordFeed feed(MakeEventFactory({}), counters_);
  for (std::size_t at = 0, piece = 1; at < text.size(); at += piece, piece = piece % 8191 + 1) {
    const std::string part = text.substr(at, piece);
    feed.Feed(reinterpret_cast<const unsigned char*>(part.data()), part.size());
  }
  EXPECT_THAT(Feed(feed, ""), testing::UnorderedElementsAreArray(expected));
}

}  // namespace
}  // namespace zagent::audit::internal
