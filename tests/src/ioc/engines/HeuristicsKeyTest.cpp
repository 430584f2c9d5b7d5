#include "src/ioc/engines/HeuristicsKey.h"

#include "common/src/util/Digest.h"
#include "tests/fakes/Heap.h"
#include "tests/src/ioc/rules/RulesFixture.h"

namespace zagent::ioc::internal {
namespace {

using edr::EventType;

constexpr std::uint32_t kAlice = 1000;

std::string FromHex(const std::string& hex) {
  std::string bytes;
  for (std::size_t at = 0; at + 1 < hex.size(); at += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
  }
  EXPECT_EQ(common::util::ToHex(bytes), hex) << "lower-case digits, two a byte";
  return bytes;
}

class HeuristicsKeyTest : public RulesFixture {
 protected:
  static constexpr std::int32_t kEditor = 80;
  // Behind what the event itself tells: the editor that Alice runs from the shell of a job.
  static constexpr const char* kChain =
      "/usr/bin/vi:1000:0:vi:/etc/hosts:;/opt/job.sh:4294967295:0:;/usr/sbin/cron:4294967295:0:;"
      "/sbin/init:4294967295:0:sh:-c:true:;";

  HeuristicsKeyTest() {
    auto editor = Start(kEditor, kShell, "/usr/bin/vi");
    editor->auid = kAlice;
    editor->uid = kAlice;
    editor->euid = 0;
    editor->arguments = {"vi", "/etc/hosts"};
    tree_->AddEvent(std::move(editor));
  }

  [[nodiscard]] std::string KeyOf(fakes::FakeEvent event, std::int32_t pid = kEditor) {
    event.pid = pid;
    return key_.Of(event, *tree_);
  }
  [[nodiscard]] std::string TextOf(const fakes::FakeEvent& event, std::int32_t pid = kEditor) {
    return FromHex(KeyOf(event, pid));
  }
  static fakes::FakeEvent With(fakes::FakeEvent event, const std::string& path, std::uint32_t owner,
                               std::uint32_t group, std::uint32_t permission) {
    event.file = common::ImageInfo("fd:00", permission, 7, path, group, "", "", owner, "");
    return event;
  }

  HeuristicsKey key_;
};

TEST_F(HeuristicsKeyTest, AnEventTellsWhatIsDoneToWhatAndTheChainOfProcessesTellsByWhom) {
  fakes::FakeEvent listen = NetworkEvent("::1", 65535, EventType::Bind);
  listen.action = "Listen";
  fakes::FakeEvent exit = StartEvent("/usr/bin/vi", EventType::ProcessExit);
  exit.action = "Exit";
  exit.image.reset();
  struct Case {
    fakes::FakeEvent event;
    std::string text;
  };
  const fakes::FakeEvent folder_event = DirectoryEvent("", EventType::Create);
  for (const auto& [event, text] : {
           Case{NetworkEvent("10.1.2.3", 443), "Connect:10.1.2.3:443;"},
           {listen, "Listen:::1:65535;"},
           {With(FileEvent(""), "/etc/ssh/sshd_config", 0, 4, 640), "Write:0:4:640:/etc/ssh/;"},
           {With(FileEvent(""), "/etc/ssh/other", 0, 4, 640), "Write:0:4:640:/etc/ssh/;"},
           {With(FileEvent(""), "/vmlinuz", 4294967295, 4294967295, 4294967295),
            "Write:4294967295:4294967295:4294967295:/;"},
           {With(FileEvent(""), "/etc/ssh/../x", 1, 2, 4755), "Write:1:2:4755:/etc/;"},
           {With(folder_event, "/etc/ssh", 0, 0, 755), "Write:0:0:755:/etc/ssh;"},
           {With(RenameEvent("", "/srv/x"), "/etc/passwd", 0, 0, 644), "Rename:0:0:644:/etc/;"},
           {StartEvent("/usr/bin/vi"), "Execve:;"},
           {exit, "Exit:;"},
       }) {
    EXPECT_EQ(TextOf(event), text + kChain);
  }
}

TEST_F(HeuristicsKeyTest, WhoHasLoggedInAndWithWhoseRightsHeActsBelongToAProcess) {
  auto start = Start(90, kShell, "/usr/bin/id");
  start->auid = kAlice;
  start->uid = 1001;
  start->euid = 1002;
  tree_->AddEvent(std::move(start));
  EXPECT_EQ(HeuristicsPartOf(*tree_->Get(90)), "/usr/bin/id:1000:1002:;");
}

TEST_F(HeuristicsKeyTest, AFileThatNobodyDescribesIsLeftOut) {
  fakes::FakeEvent event = FileEvent("");
  event.file.reset();
  EXPECT_EQ(TextOf(event), std::string("Write:;") + kChain);
}

TEST_F(HeuristicsKeyTest, AScriptStandsForItsInterpreter) {
  EXPECT_EQ(TextOf(StartEvent("/bin/dash"), kShell),
            "Execve:;/opt/job.sh:4294967295:0:;/usr/sbin/cron:4294967295:0:;/sbin/init:4294967295:0:sh:-c:true:;");
}

TEST_F(HeuristicsKeyTest, ProcessOneEndsTheChain) {
  EXPECT_EQ(TextOf(NetworkEvent("a", 1), 1), "Connect:a:1;/sbin/init:4294967295:0:sh:-c:true:;");
}

TEST_F(HeuristicsKeyTest, AnotherParentMakesAnotherKey) {
  Exec(51, 1, "/usr/sbin/sshd");
  Exec(61, kCron, "/bin/cat");
  Exec(62, 51, "/bin/cat");
  Exec(63, kCron, "/bin/cat");
  const fakes::FakeEvent event = FileEvent("/etc/passwd");
  EXPECT_NE(KeyOf(event, 61), KeyOf(event, 62));
  EXPECT_EQ(KeyOf(event, 61), KeyOf(event, 63)) << "whoever else does the same in the same place";
}

TEST_F(HeuristicsKeyTest, TheParentIsTheOneThatTheTreeKnows) {
  fakes::FakeEvent event = FileEvent("/etc/passwd");
  const std::string key = KeyOf(event);
  event.ppid = kCron;
  EXPECT_EQ(KeyOf(event), key);
}

TEST_F(HeuristicsKeyTest, WhoIsGivenToInitHasAnotherChainFromThenOn) {
  const std::string before = TextOf(StartEvent("/usr/bin/vi"));
  auto orphaned = Write(kEditor, 1);
  tree_->AddEvent(std::move(orphaned));
  EXPECT_EQ(TextOf(StartEvent("/usr/bin/vi")),
            "Execve:;/usr/bin/vi:1000:0:vi:/etc/hosts:;/sbin/init:4294967295:0:sh:-c:true:;");
  EXPECT_NE(before, TextOf(StartEvent("/usr/bin/vi")));
}

TEST_F(HeuristicsKeyTest, APartIsMadeOnceAndMadeAgainForAnotherProgram) {
  EXPECT_EQ(tree_->Get(kEditor)->FindHeuristicsKey(), nullptr);
  (void)KeyOf(FileEvent("/etc/passwd"));
  const std::string* const part = tree_->Get(kEditor)->FindHeuristicsKey();
  ASSERT_NE(part, nullptr);
  EXPECT_EQ(*part, "/usr/bin/vi:1000:0:vi:/etc/hosts:;");
  (void)KeyOf(FileEvent("/etc/group"));
  EXPECT_EQ(tree_->Get(kEditor)->FindHeuristicsKey(), part);
  Exec(kEditor, kShell, "/bin/sh");
  EXPECT_EQ(TextOf(StartEvent("/bin/sh")).find("Execve:;/bin/sh:4294967295:0:;/opt/job.sh:"), 0U);
}

TEST_F(HeuristicsKeyTest, ALongPartIsShortenedAndStillTellsProcessesApart) {
  const auto part_of = [&](std::size_t length, char last) {
    auto process = Start(90, 1, "/bin/long");
    process->arguments = {std::string(length, 'a') + last};
    tree_->AddEvent(std::move(process));
    return HeuristicsPartOf(*tree_->Get(90));
  };
  const std::string around = "/bin/long:4294967295:0:x:;";
  const std::size_t most = HeuristicsKey::kMaxProcessPart - around.size();
  EXPECT_EQ(part_of(most, 'b'), "/bin/long:4294967295:0:" + std::string(most, 'a') + "b:;");
  const std::string shortened = part_of(most + 1, 'b');
  EXPECT_EQ(shortened, common::util::Sha256Hex("/bin/long:4294967295:0:" + std::string(most + 1, 'a') + "b:;") + ";");
  EXPECT_EQ(part_of(most + 1, 'b'), shortened);
  EXPECT_NE(part_of(most + 1, 'c'), shortened);
  EXPECT_EQ(part_of(1'000'000, 'b').size(), shortened.size());
}

TEST_F(HeuristicsKeyTest, ALongKeyIsShortenedAndStillTellsKindsApart) {
  const auto key_of = [&](std::size_t length) {
    return KeyOf(With(DirectoryEvent("", EventType::Create), "/" + std::string(length, 'd'), 0, 0, 755), 1);
  };
  const std::string around = "Write:0:0:755:/;/sbin/init:4294967295:0:sh:-c:true:;";
  const std::size_t most = HeuristicsKey::kMaxText - around.size();
  EXPECT_EQ(key_of(most).size(), 2 * HeuristicsKey::kMaxText);
  EXPECT_EQ(key_of(most + 1).size(), 64U);
  EXPECT_EQ(key_of(most + 1), key_of(most + 1));
  EXPECT_NE(key_of(most + 1), key_of(most + 2));
}

TEST_F(HeuristicsKeyTest, AKeyOfAnyLengthIsTheDigestOfItsWholeText) {
  std::string chain = "/sbin/init:4294967295:0:sh:-c:true:;";
  std::set<std::string> keys;
  for (std::int32_t pid = 100; pid < 160; ++pid) {
    const std::string program = "/bin/" + std::string(static_cast<std::size_t>(pid % 7) * 20, 'p');
    Exec(pid, pid == 100 ? 1 : pid - 1, program);
    chain.insert(0, program + ":4294967295:0:;");
    const std::string text = "Connect:10.1.2.3:443;" + chain;
    const std::string key = KeyOf(NetworkEvent("10.1.2.3", 443), pid);
    EXPECT_EQ(key, text.size() <= HeuristicsKey::kMaxText ? common::util::ToHex(text) : common::util::Sha256Hex(text));
    EXPECT_EQ(KeyOf(NetworkEvent("10.1.2.3", 443), pid), key) << "again";
    keys.insert(key);
  }
  EXPECT_EQ(keys.size(), 60U);
  EXPECT_GT(chain.size(), 2 * HeuristicsKey::kMaxText);
  EXPECT_EQ(KeyOf(NetworkEvent("10.1.2.3", 443), 100).find("436f6e6e656374"), 0U) << "short ones stay as they are";
}

TEST_F(HeuristicsKeyTest, ALongTextOfNobodyIsShortenedToo) {
  EXPECT_EQ(KeyOf(DirectoryEvent("/" + std::string(4'000, 'd'), EventType::Create), 0).size(), 64U);
}

TEST_F(HeuristicsKeyTest, AFailureInTheMiddleOfALongKeyDoesNotSpoilTheNextOne) {
  Exec(100, 1, "/bin/" + std::string(400, 'p'));
  for (std::int32_t pid = 101; pid < 110; ++pid) Exec(pid, pid - 1, "/bin/" + std::string(400, 'p'));
  const std::string key = KeyOf(NetworkEvent("a", 1), 109);
  tree_->Get(102)->SetParent(4711);
  EXPECT_THROW((void)KeyOf(NetworkEvent("a", 1), 109), common::GenericProcessTreeException);
  tree_->Get(102)->SetParent(101);
  EXPECT_EQ(KeyOf(NetworkEvent("a", 1), 109), key);
}

TEST_F(HeuristicsKeyTest, HoldsNoMoreForADeepChainThanForAFlatOne) {
  for (std::int32_t pid = 100; pid < 5'000; ++pid) {
    Exec(pid, pid == 100 ? 1 : pid - 1, "/bin/" + std::string(400, 'p'));
  }
  const fakes::FakeEvent event = NetworkEvent("10.1.2.3", 443);
  HeuristicsKey to_fill_the_parts;
  fakes::FakeEvent deepest = event;
  deepest.pid = 4'999;
  (void)to_fill_the_parts.Of(deepest, *tree_);
  const std::size_t before = fakes::HeapInUse();
  EXPECT_EQ(KeyOf(event, 4'999).size(), 64U);
  if (!fakes::kKnowsItsHeap) return;
  EXPECT_LE(fakes::HeapInUse(), before + 16 * 1024) << "of two million bytes";
}

TEST_F(HeuristicsKeyTest, AProcessThatIsNotKnownIsTheTreesFailure) {
  EXPECT_EQ(fakes::WhatOf<common::GenericProcessTreeException>([&] { (void)KeyOf(FileEvent("/x"), 4711); }),
            "ProcessInfo for pid 4711 does not exist");
}

}  // namespace
}  // namespace zagent::ioc::internal
