// The file operations of a real 6.1 kernel, read and built into events.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <map>
#include <random>

#include "common/src/util/DeviceText.h"
#include "src/audit/events/AttributeEvent.h"
#include "src/audit/events/CreateEvent.h"
#include "src/audit/events/DeleteEvent.h"
#include "src/audit/events/LineRecordSource.h"
#include "src/audit/events/ReadWriteEvent.h"
#include "src/audit/events/RenameEvent.h"
#include "src/audit/events/SyscallSet.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/TestData.h"

namespace zagent::audit::internal {
namespace {

constexpr SyscallSet<5> kReadWrite = {2, 76, 77, 257, 304};
constexpr SyscallSet<9> kCreate = {83, 85, 86, 88, 133, 258, 259, 265, 266};
constexpr SyscallSet<3> kDelete = {84, 87, 263};
constexpr SyscallSet<17> kAttribute = {90, 91, 92, 93, 94, 132, 188, 189, 190, 197, 198, 199, 235, 260, 261, 268, 280};
constexpr SyscallSet<3> kRename = {82, 264, 316};

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

// The recorded work was done in /srv/w and /tmp. Here both lie in a folder of the test's own, which looks as it did at
// the end of the recording: e1, a link ln to it, and sub; the records' inodes are those of these objects.
class RealRecordsTest : public ::testing::Test {
 protected:
  RealRecordsTest() {
    EXPECT_EQ(mkdir((folder_ / "w").c_str(), 0755), 0);
    EXPECT_EQ(mkdir((folder_ / "w/sub").c_str(), 0755), 0);
    EXPECT_EQ(mkdir((folder_ / "t").c_str(), 0755), 0);
    folder_.Write("w/e1", "abc");
    EXPECT_EQ(symlink("e1", (folder_ / "w/ln").c_str()), 0);
  }

  std::string Records() const {
    std::ifstream in(fakes::TestData("audit-operations-6.1.log"), std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(in), {}};
    EXPECT_FALSE(text.empty());
    // The test's own folder may lie in /tmp, so that name goes first.
    ReplaceAll(text, "\"/tmp/", "\"" + folder_.Path() + "/t/");
    ReplaceAll(text, "\"/srv/w", "\"" + folder_.Path() + "/w");
    ReplaceAll(text, Hex("/srv/w"), Hex(folder_.Path() + "/w"));
    PutInode(text, 91, "w");
    PutInode(text, 95, "w/sub");
    PutInode(text, 27, "t");
    PutInode(text, 118, "w/e1");
    PutInode(text, 121, "w/ln");
    return text;
  }

  // What became of the operations under each mark, in order. Paths are shown without the folder of the test.
  std::map<std::string, std::vector<std::string>> Run(const std::string& text) {
    outcome_.clear();
    mark_ = "start";
    std::vector<RecordLine> event;
    for (std::string_view rest = text; !rest.empty();) {
      const std::string_view line = rest.substr(0, rest.find('\n'));
      rest.remove_prefix(std::min(line.size() + 1, rest.size()));
      const auto record = ReadRecordLine(line);
      if (!record) continue;
      if (!event.empty() && event.front().stamp != record->stamp) OnEvent(std::exchange(event, {}));
      event.push_back(*record);
    }
    OnEvent(event);
    return outcome_;
  }

 private:
  void PutInode(std::string& text, int inode, const std::string& name) const {
    struct stat result {};
    EXPECT_EQ(lstat((folder_ / name).c_str(), &result), 0);
    ReplaceAll(text, " inode=" + std::to_string(inode) + " dev=00:02 ",
               " inode=" + std::to_string(result.st_ino) + " dev=" + common::util::DeviceText(result.st_dev) + " ");
  }

  void OnEvent(const std::vector<RecordLine>& lines) {
    LineRecordSource source;
    source.Begin(lines);
    const Record* call = source.FindCall();
    if (call == nullptr || !call->fields.Has(edr::RecordField::Syscall)) return;
    const auto syscall = static_cast<std::uint32_t>(
        std::strtoul(std::string(call->fields.Find(edr::RecordField::Syscall)).c_str(), nullptr, 10));
    try {
      std::unique_ptr<DeleteEvent> replaced;
      const std::unique_ptr<edr::Event> event = Build(source, syscall, &replaced);
      if (replaced) Note(*replaced);
      if (event) Note(*event);
    } catch (const std::exception& error) {
      outcome_[mark_].push_back(Short(std::string("dropped: ") + error.what()));
    }
  }

  static std::unique_ptr<edr::Event> Build(RecordSource& source, std::uint32_t syscall,
                                           std::unique_ptr<DeleteEvent>* replaced) {
    if (Contains(kReadWrite, syscall)) return std::make_unique<ReadWriteEvent>(source, nullptr);
    if (Contains(kCreate, syscall)) return std::make_unique<CreateEvent>(source, nullptr);
    if (Contains(kDelete, syscall)) return std::make_unique<DeleteEvent>(source, nullptr);
    if (Contains(kAttribute, syscall)) return std::make_unique<AttributeEvent>(source, nullptr);
    if (Contains(kRename, syscall)) return std::make_unique<RenameEvent>(source, nullptr, replaced);
    return nullptr;
  }

  void Note(const edr::Event& event) {
    std::string path = event.GetFile()->GetPath();
    if (const std::size_t at = path.find("MARK-"); at != std::string::npos) {
      // Each operation follows the making and removing of a folder that is named after it.
      mark_ = path.substr(at + 5);
      return;
    }
    std::string line = event.GetAction() + " " + path;
    if (event.GetType() == edr::EventType::Rename) line += " -> " + event.GetNewFile()->GetPath();
    if (!event.IsSuccessful()) line += " (failed)";
    outcome_[mark_].push_back(Short(line));
  }

  std::string Short(std::string line) const {
    ReplaceAll(line, folder_.Path() + "/", "");
    return line;
  }

  fakes::TempFolder folder_;
  std::string mark_ = "start";
  std::map<std::string, std::vector<std::string>> outcome_;
};

using Outcome = std::vector<std::string>;

TEST_F(RealRecordsTest, EveryOperationBecomesItsEvent) {
  const std::map<std::string, Outcome> expected = {
      {"start", {"Create w/sub"}},
      {"01-rel-create", {"Create w/sub/f"}},
      {"02-rel-nodir-create", {"Create w/g"}},
      {"03-abs-create", {"Create w/h"}},
      {"04-existing-ocreat", {"Write w/h"}},
      {"05-existing-wronly", {"Write w/h"}},
      {"06-read", {"Read w/h"}},
      {"07-rel-mkdir", {"Create w/sub/d"}},
      {"08-dotdot", {"Write w/sub/f"}},
      // The process that held the descriptor is gone: the name is taken as it stands.
      {"09-openat-dirfd", {"Read w/sub", "Create w/viafd"}},
      {"10-rename", {"Rename w/g -> w/g2"}},
      {"11-rename-over", {"Delete w/h", "Rename w/g2 -> w/h"}},
      {"12-rename-reldir", {"Rename w/sub/f -> w/sub/f2"}},
      {"13-rename-out", {"Rename w/sub/f2 -> t/out"}},
      {"14-rename-in", {"Rename t/out -> w/in"}},
      {"15-renamedir", {"Rename w/sub/d -> w/sub/d2"}},
      // e1 is another file at the end of the recording: it was exchanged with e2.
      {"16-exchange", {"dropped: File w/e1 differs from the object of the audit event with ID 76", "Create w/e2"}},
      {"16b", {"dropped: Cannot combine records with missing or different inodes"}},
      {"17-symlink", {"Create w/ln"}},
      {"18-open-via-symlink", {"Write w/e1"}},
      {"19-chmod", {"Change w/e1"}},
      {"20-chmod-symlink", {"Change w/e1"}},
      {"21-lchown", {"Change w/ln"}},
      {"22-fchmod", {"Write w/e1", "Change w/e1"}},
      {"23b-truncate", {"dropped: Invalid syscall for Write event: 76"}},
      {"24-link", {"Create w/hard"}},
      {"25-unlink", {"Delete w/hard"}},
      {"26-unlink-symlink", {"Delete w/ln"}},
      {"27-setxattr", {"Change w/e1 (failed)", "Change w/e1"}},
      {"29-mknod-fifo",
       {"dropped: Missing/incorrect PATH records in file event",
        "dropped: Missing/incorrect PATH records in file event"}},
      {"30-spaces", {"Create w/a b\"c"}},
      {"33-fail-eacces", {"Create w/sec", "Write w/sec (failed)"}},
      {"34-rmdir", {"Delete w/sub/d2"}},
      {"38-pthread", {"Create w/from-thread"}},
      {"45-w2file", {"Create w2file"}},
      {"46-otrunc", {"Write w/e1", "dropped: Missing create PATH record for Create event"}},
  };
  std::map<std::string, Outcome> outcome = Run(Records());
  const Outcome last = outcome["47-end"];
  outcome.erase("47-end");
  EXPECT_EQ(outcome, expected);

  Outcome expected_last;
  for (int file = 0; file < 20; ++file) expected_last.push_back("Create w/pend" + std::to_string(file));
  EXPECT_EQ(last, expected_last);
}

TEST_F(RealRecordsTest, DamagedRecordsCostOnlyTheirOwnEvents) {
  const std::string sound = Records();
  std::mt19937 random(20240501);
  for (int round = 0; round < 20; ++round) {
    std::string text = sound;
    for (int damage = 0; damage < 40; ++damage) {
      // Line ends stay, so that one damage spoils one record.
      char& byte = text[random() % text.size()];
      if (byte != '\n') byte = static_cast<char>(' ' + random() % 95);
    }
    std::size_t events = 0;
    for (const auto& [mark, lines] : Run(text)) events += lines.size();
    EXPECT_GT(events, 40U) << "round " << round;
  }
}

}  // namespace
}  // namespace zagent::audit::internal
