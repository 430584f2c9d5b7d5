#include "src/audit/events/PlainRecord.h"

#include <auparse.h>
#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "src/audit/events/RecordSource.h"
#include "tests/fakes/AuditLog.h"
#include "tests/fakes/TestData.h"

namespace zagent::audit::internal {
namespace {

using edr::RecordField;

constexpr const char* kCall =
    "type=SYSCALL msg=audit(1795162410.936:126): arch=c000003e syscall=257 success=yes exit=-2 a0=ffffff9c "
    "a1=55f176162287 a2=41 a3=1a4 items=2 ppid=97 pid=103 auid=4294967295 uid=0 gid=0 euid=0 tty=(none) "
    "ses=4294967295 comm=\"ops\" exe=\"/bin/ops\" subj=unconfined key=\"fimrule-1111\"";
constexpr const char* kPath =
    "type=PATH msg=audit(1795162410.936:126): item=0 name=\"/srv/w/\" inode=91 dev=00:02 mode=040755 ouid=0 ogid=0 "
    "rdev=00:00 nametype=PARENT cap_fp=0 cap_fi=0 cap_fe=0 cap_fver=0 cap_frootid=0";

struct Fields {
  std::map<RecordField, std::string> named;
  std::map<std::size_t, std::string> arguments;
  bool operator==(const Fields&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Fields& fields) {
  for (const auto& [field, value] : fields.named) out << static_cast<int>(field) << '=' << value << ' ';
  for (const auto& [index, value] : fields.arguments) out << 'a' << index << '=' << value << ' ';
  return out;
}

const RecordRendering& RenderingOf(int type) {
  const RecordRendering* rendering = FindRendering(type);
  if (rendering == nullptr) throw std::runtime_error("nobody reads records of type " + std::to_string(type));
  return *rendering;
}

// Nothing for a record that is not plain.
std::optional<Fields> ReadPlain(const std::string& text, int type) {
  edr::RecordFields read;
  ValueStore values;
  if (!ReadPlainRecord(text, RenderingOf(type), values, read)) return std::nullopt;
  Fields fields;
  for (unsigned at = 0; at < static_cast<unsigned>(RecordField::Count); ++at) {
    const auto field = static_cast<RecordField>(at);
    if (read.Has(field)) fields.named[field] = read.Find(field);
  }
  for (std::size_t at = 0; at < edr::RecordFields::kMaxArguments; ++at) {
    if (const auto value = read.Argument(at)) fields.arguments[at] = *value;
  }
  return fields;
}

// What auparse's own cursor tells of the record at which the state stands.
Fields ReadByCursor(auparse_state_t* state, int type) {
  const RecordRendering& rendering = RenderingOf(type);
  Fields fields;
  edr::RecordFieldSet present = 0;
  const auto decoded = [state] { return std::string(auparse_interpret_field(state)); };
  const auto written = [state] { return std::string(auparse_get_field_str(state)); };
  if (auparse_first_field(state) < 1) return fields;
  do {
    const std::string name = auparse_get_field_name(state);
    const auto index = rendering.arguments ? edr::ArgumentNamed(name) : std::nullopt;
    const auto field = edr::FieldNames::Find(name);
    if (index) {
      fields.arguments[*index] = DecodesArguments(rendering) ? decoded() : written();
    } else if (field && (rendering.wanted & SetOf(*field)) != 0) {
      const bool is_unknown = *field == RecordField::Name && written() == "(null)";
      const bool decodes = (rendering.decoded & SetOf(*field)) != 0;
      fields.named[*field] = is_unknown ? std::string() : decodes ? decoded() : written();
      present |= SetOf(*field);
    }
  } while (!IsComplete(rendering, present) && auparse_next_field(state) > 0);
  return fields;
}

struct Seen {
  std::size_t records = 0;
  std::size_t plain = 0;
};

// Reads each record of the log both ways.
class BothWays {
 public:
  BothWays() : state_(auparse_init(AUSOURCE_FEED, nullptr)) {
    auparse_set_escape_mode(state_, AUPARSE_ESC_RAW);
    auparse_add_callback(
        state_,
        [](auparse_state_t* state, auparse_cb_event_t kind, void* self) {
          if (kind == AUPARSE_CB_EVENT_READY) static_cast<BothWays*>(self)->Compare(state);
        },
        this, nullptr);
  }
  BothWays(const BothWays&) = delete;
  BothWays& operator=(const BothWays&) = delete;
  ~BothWays() { auparse_destroy(state_); }

  Seen Read(const std::string& log) {
    seen_ = {};
    EXPECT_EQ(auparse_feed(state_, log.data(), log.size()), 0);
    auparse_flush_feed(state_);
    return seen_;
  }

 private:
  void Compare(auparse_state_t* state) {
    if (auparse_first_record(state) < 1) return;
    do {
      const int type = auparse_get_type(state);
      const char* text = auparse_get_record_text(state);
      if (FindRendering(type) == nullptr || text == nullptr) continue;
      ++seen_.records;
      const auto plain = ReadPlain(text, type);
      if (!plain) continue;
      ++seen_.plain;
      EXPECT_EQ(*plain, ReadByCursor(state, type)) << text;
    } while (auparse_next_record(state) > 0);
  }

  auparse_state_t* state_;
  Seen seen_;
};

std::string ReadLog(const std::string& name) {
  std::ifstream in(fakes::TestData(name));
  return {std::istreambuf_iterator<char>(in), {}};
}

const std::vector<std::string>& Logs() {
  static const std::vector<std::string> kLogs = {"audit-operations-6.1.log", "audit-processes-6.1.log",
                                                 "audit-overlay-6.1.log", "audit-extended-6.1.log"};
  return kLogs;
}

TEST(PlainRecord, TellsTheWantedFieldsAsTheKernelWroteThem) {
  const auto call = ReadPlain(kCall, record_type::kSyscall);
  ASSERT_TRUE(call);
  EXPECT_EQ(call->named.at(RecordField::Arch), "c000003e");
  EXPECT_EQ(call->named.at(RecordField::Exit), "-2");
  EXPECT_EQ(call->named.at(RecordField::Exe), "/bin/ops");
  EXPECT_EQ(call->named.at(RecordField::Key), "\"fimrule-1111\"");
  EXPECT_EQ(call->named.count(RecordField::OUid), 0U);
  EXPECT_EQ(call->arguments,
            (std::map<std::size_t, std::string>{{0, "ffffff9c"}, {1, "55f176162287"}, {2, "41"}, {3, "1a4"}}));
  const auto path = ReadPlain(kPath, record_type::kPath);
  ASSERT_TRUE(path);
  EXPECT_EQ(path->named.at(RecordField::Name), "/srv/w/");
  EXPECT_EQ(path->named.at(RecordField::NameType), "PARENT");
}

TEST(PlainRecord, LeavesToAuparseWhatIsMoreThanItsWord) {
  const auto leaves = [](const char* from, const char* to) {
    return !ReadPlain(fakes::Replaced(kCall, from, to), record_type::kSyscall);
  };
  EXPECT_TRUE(leaves("\"/bin/ops\"", "2F62696E2F61206")) << "half a byte";
  EXPECT_TRUE(leaves("\"/bin/ops\"", "2F62696E2F612062x2")) << "a digit that is none";
  EXPECT_TRUE(leaves("\"/bin/ops\"", "2F62696E2F612062xx")) << "two of them";
  EXPECT_TRUE(leaves("\"/bin/ops\"", "2f62696e")) << "digits that no kernel writes";
  EXPECT_TRUE(leaves("\"/bin/ops\"", "2F6200696E")) << "a NUL within a name";
  EXPECT_TRUE(leaves("\"/bin/ops\"", "002F6269")) << "the name of a socket that has no file";
  EXPECT_TRUE(leaves("\"/bin/ops\"", "(null)")) << "a program that the kernel does not know";
  EXPECT_TRUE(leaves("\"/bin/ops\"", "\"\"")) << "an empty name";
  EXPECT_TRUE(leaves("\"/bin/ops\"", "\"/bin/ops")) << "a quote that is not closed";
  EXPECT_TRUE(leaves("\"/bin/ops\"", "\"/bin\"ops\"")) << "a quote within";
  EXPECT_TRUE(leaves("\"ops\"", "\"two words\"")) << "a blank in a value that nobody reads";
  EXPECT_TRUE(leaves("unconfined", "/usr/bin/man (complain)")) << "a word without a value";
  EXPECT_TRUE(leaves("unconfined", "'a=1 pid=1 b=1'")) << "fields within a value";
  EXPECT_TRUE(leaves("unconfined", "{a=1 pid=1 b=1}")) << "fields within brackets";
  EXPECT_TRUE(leaves("tty=(none)", "a_name_that_is_long=1")) << "a name longer than all that are read";
  EXPECT_TRUE(leaves("unconfined", "a_word_that_is_long b_word_that_is_long")) << "a long word without a value";
  EXPECT_TRUE(leaves("\"fimrule-1111\"", "6669727374017365636F6E64")) << "several keys";
  EXPECT_TRUE(leaves("uid=0", "uid=0,")) << "a sign behind a number";
  EXPECT_TRUE(leaves(" pid=103", " (pid=103")) << "a sign before a name";
  EXPECT_TRUE(leaves("uid=0", "uid=")) << "no value";
  EXPECT_TRUE(leaves(" uid=0", "  uid=0")) << "two blanks";
  EXPECT_FALSE(leaves("\"fimrule-1111\"", "(null)")) << "no key";
}

TEST(PlainRecord, IsReadUpToWhatTheAuditDaemonHasAddedForPeople) {
  const Seen seen =
      BothWays().Read(std::string(kCall) + "\x1d" + "ARCH=x86_64 SYSCALL=openat AUID=\"unset\" UID=\"root\"\n" + kPath +
                      "\x1d" + "OUID=\"root\" OGID=\"root\"\n");
  EXPECT_EQ(seen.records, 2U);
  EXPECT_EQ(seen.plain, 2U);
}

TEST(PlainRecord, EndsWithTheLastFieldThatIsWanted) {
  const auto path = ReadPlain(std::string(kPath) + " inode=5 word", record_type::kPath);
  ASSERT_TRUE(path);
  EXPECT_EQ(path->named.at(RecordField::Inode), "91");
}

TEST(PlainRecord, TellsNamesThatTheKernelWroteInHexadecimal) {
  const auto call = ReadPlain(fakes::Replaced(kCall, "\"/bin/ops\"", "2F62696E2F6120622EC3BC"), record_type::kSyscall);
  ASSERT_TRUE(call);
  EXPECT_EQ(call->named.at(RecordField::Exe), "/bin/a b.\xc3\xbc");
}

TEST(PlainRecord, TellsTheWordsOfACommandLine) {
  const auto title = ReadPlain("proctitle=7368002D63007669", record_type::kProctitle);
  ASSERT_TRUE(title);
  EXPECT_EQ(title->named.at(RecordField::Proctitle), "sh -c vi");
}

TEST(PlainRecord, TellsACommandLineWhoseFirstWordIsEmpty) {
  const auto title = ReadPlain("proctitle=002D6300", record_type::kProctitle);
  ASSERT_TRUE(title);
  EXPECT_EQ(title->named.at(RecordField::Proctitle), " -c ");
}

TEST(PlainRecord, TellsThatThereIsNoCommandLine) {
  const auto title = ReadPlain("proctitle=(null)", record_type::kProctitle);
  ASSERT_TRUE(title);
  EXPECT_EQ(title->named.at(RecordField::Proctitle), "(null)");
}

TEST(PlainRecord, TellsTheArgumentsOfAProgram) {
  const auto program = ReadPlain("argc=3 a0=\"sh\" a1=6120622263 a2=\"-c\"", record_type::kExecve);
  ASSERT_TRUE(program);
  EXPECT_EQ(program->named.at(RecordField::Argc), "3");
  EXPECT_EQ(program->arguments, (std::map<std::size_t, std::string>{{0, "sh"}, {1, "a b\"c"}, {2, "-c"}}));
}

TEST(PlainRecord, LeavesArgumentsThatAreMoreThanTheirWordToAuparse) {
  for (const char* fields : {"argc=1 a0=\"\"", "argc=1 a0=\"s h\"", "argc=1 a0=736", "argc=1 a0=sh", "argc=1 a0=730068",
                             "argc=1 a0[0]=7368", "a0_len=2 a0[0]=7368", "argc=300 a299=\"x\""}) {
    EXPECT_FALSE(ReadPlain(fields, record_type::kExecve)) << fields;
  }
}

TEST(PlainRecord, LeavesAddressesToAuparse) {
  EXPECT_FALSE(ReadPlain("saddr=02000016C0A8011B0000000000000000", record_type::kSockaddr));
}

TEST(PlainRecord, TellsOfRealRecordsWhatAuparseTells) {
  for (const std::string& name : Logs()) {
    SCOPED_TRACE(name);
    const Seen seen = BothWays().Read(ReadLog(name));
    EXPECT_GT(seen.records, 50U);
    EXPECT_GT(seen.plain * 10, seen.records * 9);
  }
}

TEST(PlainRecord, TellsOfTextInHexadecimalWhatAuparseTells) {
  constexpr int kRecords = 3'000;
  constexpr std::size_t kLongest = 600;
  std::mt19937 random(20261123);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same texts in each run
  const auto text = [&random] {
    // A NUL, a blank, a line break and a quote are as likely as all others.
    constexpr std::array<const char*, 6> kSpecial = {"00", "20", "0A", "22", "1D", "2F"};
    std::string hex;
    const std::size_t size = 1 + random() % (random() % 4 == 0 ? kLongest : 12);
    for (std::size_t byte = 0; byte < size; ++byte) {
      if (random() % 2 == 0) {
        hex += kSpecial[random() % kSpecial.size()];
        continue;
      }
      constexpr std::string_view kDigits = "0123456789ABCDEF";
      hex += kDigits[random() % kDigits.size()];
      hex += kDigits[random() % kDigits.size()];
    }
    return hex;
  };
  std::string log;
  for (int record = 0; record < kRecords; ++record) {
    const std::string head = " msg=audit(1795162410.936:" + std::to_string(1000 + record) + "): ";
    switch (record % 5) {
      case 0:
        // Behind an empty first word auparse tells what is left of the digits.
        log += "type=PROCTITLE" + head + "proctitle=41" + text() + "\n";
        break;
      case 1:
        log += "type=CWD" + head + "cwd=" + text() + "\n";
        break;
      case 2:
        log += "type=EXECVE" + head + "argc=2 a0=" + text() + " a1=" + text() + "\n";
        break;
      case 3:
        log += "type=PATH" + head + "item=0 name=" + text() + " inode=1 nametype=NORMAL\n";
        break;
      default:
        log += "type=SYSCALL" + head + "syscall=2 exe=" + text() + " key=(null)\n";
    }
  }
  const Seen seen = BothWays().Read(log);
  EXPECT_EQ(seen.records, static_cast<std::size_t>(kRecords));
  EXPECT_GT(seen.plain * 3, seen.records);
}

TEST(PlainRecord, TellsOfDamagedRecordsWhatAuparseTellsOrNothing) {
  constexpr std::string_view kBytes = " =\"'(){},;:-0aA/\t%";
  constexpr int kRounds = 40;
  std::mt19937 random(20261122);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same damage in each run
  const auto below = [&random](std::size_t bound) {
    return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random);
  };
  std::size_t plain = 0;
  for (int round = 0; round < kRounds; ++round) {
    std::string log = ReadLog(Logs()[below(Logs().size())]);
    for (std::size_t damage = log.size() / 60; damage > 0; --damage) {
      const std::size_t at = below(log.size());
      // The head of a line says to which event the record belongs: what is damaged stays in its place.
      const std::size_t line = log.rfind('\n', at) + 1;
      if (log[at] == '\n' || at < log.find("): ", line)) continue;
      if (below(4) == 0) {
        log.erase(at, 1);
      } else {
        log[at] = kBytes[below(kBytes.size())];
      }
    }
    plain += BothWays().Read(log).plain;
  }
  EXPECT_GT(plain, 1'000U);
}

}  // namespace
}  // namespace zagent::audit::internal
