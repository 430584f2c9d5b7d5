// What the recorded changes that say little about their object become, with and without extended coverage: held against
// the list beside the recording, a line for each step.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "common/src/util/DeviceText.h"
#include "src/audit/events/FolderWalk.h"
#include "src/audit/parser/EventFactory.h"
#include "src/audit/parser/RecordFeed.h"
#include "src/edr/process/ImageInfo.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/TestData.h"

namespace zagent::audit::internal {
namespace {

namespace fs = std::filesystem;

// The value of a field as it stands in the line; empty without one.
std::string FieldOf(const std::string& line, const std::string& name) {
  const std::size_t at = line.find(" " + name + "=");
  if (at == std::string::npos) return {};
  const std::size_t begin = at + name.size() + 2;
  return line.substr(begin, line.find_first_of(" \n\x1d", begin) - begin);
}

// A name as the kernel wrote it: quoted, in hexadecimal digits, or "(null)" for none.
std::string NameOf(const std::string& line) {
  const std::string text = FieldOf(line, "name");
  if (text.starts_with('"')) {
    const std::size_t begin = line.find(" name=\"") + 7;
    return line.substr(begin, line.find('"', begin) - begin);
  }
  if (text == "(null)") return {};
  std::string name;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    name += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
  }
  return name;
}

std::string LastPart(const std::string& name) {
  return name.substr(name.rfind('/') + 1);
}

// "uring-openat, relative to an open folder" was done to "uring-openat.d".
std::string NameOfStep(const std::string& step) {
  static const std::pair<const char*, const char*> kForms[] = {{", absolute, with io_uring_enter audited", ".e"},
                                                               {", absolute", ".a"},
                                                               {", relative to the working folder", ".c"},
                                                               {", relative to an open folder", ".d"}};
  for (const auto& [form, ending] : kForms) {
    if (!step.ends_with(form)) continue;
    const std::string call = step.substr(0, step.size() - std::string_view(form).size());
    return call + ending + (call == "uring-renameat" ? "-2" : "");
  }
  return step == "rename with trailing slashes" ? "slashed-renamed" : "";
}

// The recorded work was done in /srv/w, from there and from /root. Here both lie in a folder of the test's own, and
// each object is as the recording left it; the records' inodes are those of these objects.
class ExtendedRecordsTest : public ::testing::Test {
 protected:
  ExtendedRecordsTest() {
    for (const char* name : {"w/deep", "r", "proc"}) fs::create_directories(folder_ / name);
    std::ifstream in(fakes::TestData("audit-extended-6.1.log"), std::ios::binary);
    std::string step;
    for (std::string line; std::getline(in, line);) {
      if (const std::size_t at = line.find("'step: "); at != std::string::npos) {
        step = line.substr(at + 7, line.find(" exe=", at) - at - 7);
        steps_.push_back(step);
      }
      step_of_[SerialOf(line)] = step;
      lines_.push_back(line);
      if (line.starts_with("type=PATH ")) MakeObject(line, step);
    }
    Put(368, "w");
    Put(369, "w/deep");
  }

  // A line for each step: its events, joined by "; ".
  std::map<std::string, std::string> Run(bool extended_coverage) {
    FileContext context;
    context.folders = std::make_shared<FolderIdentities>();
    context.mounts = std::make_shared<MountTable>(folder_ / "proc");
    context.extended_coverage = extended_coverage;
    context.proc_root = folder_ / "proc";
    const std::shared_ptr<FolderIdentities> folders = context.folders;
    FolderWalk walk(*folders, *context.mounts);
    walk.Watch({{folder_ / "w"}});
    while (walk.Step()) {
    }
    // What has gone by the end of the recording, or has another name.
    folders->Learn({device_, InodeOf(510)}, folder_ / "w/slashed-rmdir");
    folders->Learn({device_, InodeOf(512)}, folder_ / "w/slashed-rename");

    RecordFeed feed(MakeEventFactory(std::move(context)), counters_);
    const std::string text = Records(extended_coverage);
    feed.Feed(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    feed.Flush();
    std::map<std::string, std::string> outcome;
    for (const auto& event : feed.TakeEvents()) {
      std::string& line = outcome[step_of_.at(event->GetId())];
      line += (line.empty() ? "" : "; ") + TextOf(*event);
    }
    return outcome;
  }

  std::vector<std::string> steps_;
  IntakeCounters counters_;

 private:
  static unsigned SerialOf(const std::string& line) {
    const std::size_t at = line.find(':', line.find("audit("));
    return at == std::string::npos ? 0 : static_cast<unsigned>(std::stoul(line.substr(at + 1)));
  }

  void Put(unsigned recorded, const std::string& name) {
    struct stat found {};
    ASSERT_EQ(lstat((folder_ / name).c_str(), &found), 0) << name;
    inodes_[recorded] = found.st_ino;
    device_ = found.st_dev;
  }
  // Objects that are gone keep numbers that nothing here has.
  [[nodiscard]] std::uint64_t InodeOf(unsigned recorded) const {
    const auto found = inodes_.find(recorded);
    return found != inodes_.end() ? found->second : 1'000'000'000'000U + recorded;
  }

  void MakeObject(const std::string& line, const std::string& step) {
    const std::string word = FieldOf(line, "nametype");
    const std::string inode = FieldOf(line, "inode");
    if (inode.empty() || (word != "CREATE" && word != "NORMAL")) return;
    std::string name = NameOf(line);
    while (name.ends_with('/')) name.pop_back();
    // Files without a name, and the other name of a new link.
    if (name == "." || name == "/srv/w" || name.starts_with("/proc/") || name.ends_with(".e-2")) return;
    if (name.empty()) name = NameOfStep(step);
    if (name.empty()) return;
    const auto recorded = static_cast<unsigned>(std::stoul(inode));
    const std::string path = "w/" + LastPart(name);
    Make(path, FieldOf(line, "mode"), recorded);
    Put(recorded, path);
  }
  void Make(const std::string& name, const std::string& mode, unsigned recorded) {
    const std::string path = folder_ / name;
    if (fs::exists(fs::symlink_status(path))) return;
    if (const auto other = path_of_.find(recorded); other != path_of_.end()) {
      fs::create_hard_link(other->second, path);
    } else if (mode.starts_with("04")) {
      fs::create_directory(path);
    } else if (mode.starts_with("0120")) {
      fs::create_symlink("nowhere", path);
    } else {
      folder_.Write(name, "abc");
    }
    path_of_.emplace(recorded, path);
  }

  // Without extended coverage the kernel is asked for the changes alone.
  std::string Records(bool extended_coverage) const {
    std::set<unsigned> unheard;
    for (const std::string& line : lines_) {
      const std::string key = FieldOf(line, "key");
      if (!extended_coverage && !key.empty() && key != "\"changes\"") unheard.insert(SerialOf(line));
    }
    std::string text;
    for (const std::string& line : lines_) {
      if (unheard.count(SerialOf(line)) == 0) text += Moved(line) + "\n";
    }
    return text;
  }
  [[nodiscard]] std::string Moved(std::string line) const {
    ReplaceAll(line, "\"/srv/w", "\"" + folder_ / "w");
    ReplaceAll(line, "=2F7372762F77", "=" + Hex(folder_ / "w"));
    ReplaceAll(line, "\"/root", "\"" + folder_ / "r");
    if (const std::string inode = FieldOf(line, "inode"); !inode.empty()) {
      const std::string other = std::to_string(InodeOf(static_cast<unsigned>(std::stoul(inode))));
      ReplaceAll(line, " inode=" + inode + " dev=00:02 ",
                 " inode=" + other + " dev=" + common::util::DeviceText(device_) + " ");
    }
    return line;
  }
  static void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
      text.replace(at, from.size(), to);
    }
  }
  static std::string Hex(const std::string& text) {
    std::ostringstream hex;
    for (const unsigned char byte : text) {
      char digits[3];
      std::snprintf(digits, sizeof digits, "%02X", byte);
      hex << digits;
    }
    return hex.str();
  }

  [[nodiscard]] std::string TextOf(const edr::Event& event) const {
    std::string text = event.GetAction() + " " + event.GetFile()->GetPath();
    if (event.GetType() == edr::EventType::Rename) text += " -> " + event.GetNewFile()->GetPath();
    ReplaceAll(text, folder_.Path() + "/", "");
    for (const auto& [recorded, inode] : inodes_) {
      ReplaceAll(text, "inode:" + std::to_string(inode), "inode:" + std::to_string(recorded));
    }
    ReplaceAll(text, "inode:1000000000", "inode:");  // of what is gone
    std::string printable;
    for (const char c : text) {
      char digits[5];
      std::snprintf(digits, sizeof digits, "\\x%02x", static_cast<unsigned char>(c));
      printable += c >= ' ' && c <= '~' ? std::string(1, c) : digits;
    }
    return printable;
  }

  fakes::TempFolder folder_;
  std::vector<std::string> lines_;
  std::map<unsigned, std::string> step_of_;   // by serial
  std::map<unsigned, std::uint64_t> inodes_;  // by the recorded one
  std::map<unsigned, std::string> path_of_;
  dev_t device_ = 0;
};

TEST_F(ExtendedRecordsTest, EveryStepBecomesItsEvents) {
  const auto plain = Run(false);
  const auto extended = Run(true);
  std::ostringstream actual;
  for (const std::string& step : steps_) {
    const auto text = [&](const auto& outcome) { return outcome.count(step) != 0 ? outcome.at(step) : "-"; };
    actual << step << " | " << text(plain) << " | " << text(extended) << "\n";
  }
  std::ifstream in(fakes::TestData("audit-extended-6.1.events"), std::ios::binary);
  std::ostringstream expected;
  expected << in.rdbuf();
  EXPECT_EQ(actual.str(), expected.str());
}

}  // namespace
}  // namespace zagent::audit::internal
