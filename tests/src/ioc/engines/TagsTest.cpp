// Each tag by itself: to which events of a process its tactic applies.
#include <Poco/File.h>

#include <set>

#include "src/ioc/engines/CredentialAccessTag.h"
#include "src/ioc/engines/DefenseEvasionTag.h"
#include "src/ioc/engines/ExecutionTag.h"
#include "src/ioc/engines/ExfiltrationTag.h"
#include "src/ioc/engines/PersistenceTag.h"
#include "src/ioc/engines/PrivilegeEscalationTag.h"
#include "tests/fakes/VirtualOrder.h"
#include "tests/src/ioc/engines/TagsFixture.h"

namespace zagent::ioc::internal {
namespace {

using edr::EventType;
using Poco::Message;

// All events of files that there are, but for a rename.
constexpr std::initializer_list<EventType> kFileTypes = {EventType::Create, EventType::Delete, EventType::Read,
                                                         EventType::Write, EventType::AttributeChange};

using TagTest = TagsFixture;

TEST_F(TagTest, AnswersInTheOrderOfItsTable) {
  EXPECT_EQ(fakes::VirtualSlot(&Tag::Configure), 0U);
  EXPECT_EQ(fakes::VirtualSlot(&Tag::Check), 3U);
}

TEST_F(TagTest, NeedsAScore) {
  EXPECT_EQ(Make<PersistenceTag>()->GetScore(), 10);
  EXPECT_EQ(Make<PersistenceTag>()->GetName(), "Persistence");
  EXPECT_EQ(PersistenceTag(*tree_, ParsedJson(R"({"score":-9223372036854775808})")).GetScore(),
            std::numeric_limits<std::int64_t>::min());
  for (const char* settings :
       {"{}", R"({"score":"1"})", R"({"score":1.5})", R"({"score":null})", R"({"score":9223372036854775808})"}) {
    EXPECT_EQ(Refusal<PersistenceTag>(settings), "Score is absent or invalid for Persistence tag") << settings;
  }
  EXPECT_EQ(Refusal<ExecutionTag>("[]"), "Invalid settings json for Execution tag");
}

TEST_F(TagTest, RefusesExclusionsThatMakeNoSense) {
  const auto refusal = [this](const std::string& exclusions) {
    return Refusal<ExfiltrationTag>(R"({"score":1,"exclusions":)" + exclusions + "}");
  };
  EXPECT_EQ(refusal("[]"), "");
  EXPECT_EQ(refusal(R"([{"actorProcess":""},{"actorProcess":"a","patterns":""}])"), "");
  EXPECT_EQ(refusal("{}"), "Exfiltration tag has invalid exclusions definition");
  EXPECT_EQ(refusal("null"), "Exfiltration tag has invalid exclusions definition");
  for (const char* exclusion : {"1", "{}", R"({"actorProcess":1})", R"({"patterns":"a"})",
                                R"({"actorProcess":"a","patterns":1})", R"({"actorProcess":"("})",
                                R"({"actorProcess":"a","patterns":"("})", R"({"actorProcess":"a","patterns":["a"]})"}) {
    EXPECT_EQ(refusal(std::string(R"([{"actorProcess":"good"},)") + exclusion + "]"),
              "Invalid exclusion at index 1 for Exfiltration tag")
        << exclusion;
  }
}

TEST_F(TagTest, ExcludesAProgramAltogetherOrWhatItDoesWithSomeValues) {
  const auto tag = Make<PersistenceTag>(
      R"("exclusions":[{"actorProcess":"/bin/all"},{"actorProcess":"/bin/empty","patterns":""},
                       {"actorProcess":"/bin/some.*","patterns":"/srv/.*"}])");
  EXPECT_TRUE(tag->IsExcluded("/bin/all", "/etc/x"));
  EXPECT_TRUE(tag->IsExcluded("/bin/all", ""));
  EXPECT_TRUE(tag->IsExcluded("/bin/empty", "/etc/x"));
  EXPECT_TRUE(tag->IsExcluded("/bin/something", "/srv/x"));
  EXPECT_FALSE(tag->IsExcluded("/bin/something", "/etc/x"));
  EXPECT_TRUE(tag->IsExcluded("/bin/something", "")) << "an empty value is everything";
  EXPECT_FALSE(tag->IsExcluded("/bin/other", "/srv/x"));
  EXPECT_FALSE(tag->IsExcluded("/bin/other", ""));
  EXPECT_FALSE(Make<PersistenceTag>()->IsExcluded("/bin/all", ""));
}

TEST_F(TagTest, ExclusionsMatchTheWholeText) {
  const auto tag = Make<PersistenceTag>(Excluding("/bin/cat|/bin/cat2", "/srv"));
  EXPECT_TRUE(tag->IsExcluded("/bin/cat", "/srv"));
  EXPECT_TRUE(tag->IsExcluded("/bin/cat2", "/srv"));
  EXPECT_FALSE(tag->IsExcluded("/bin/cat3", "/srv"));
  EXPECT_FALSE(tag->IsExcluded("/usr/bin/cat", "/srv"));
  EXPECT_FALSE(tag->IsExcluded("/bin/cat", "/srv/x"));
  EXPECT_FALSE(tag->IsExcluded("/bin/cat", "/mnt/srv"));
}

// By the key, what the tag looks for with these settings.
TEST_F(TagTest, WarnsOfExpressionsThatAreMissingOrMakeNoSenseAndUsesItsOwn) {
  for (const char* value : {"", "1", "null", R"("")", R"("(")", R"("a\u0000b")"}) {
    const fakes::LogCapture log;
    const std::string text(value);
    const auto tag =
        Make<CredentialAccessTag>(text.empty() ? "" : R"("pathRegex":)" + text + R"(,"processRegex":)" + text);
    EXPECT_TRUE(log.Has(Message::PRIO_WARNING, "[IOC]: pathRegex is empty or invalid. Using default regex.")) << value;
    EXPECT_TRUE(log.Has(Message::PRIO_WARNING, "[IOC]: processRegex is empty or invalid. Using default regex."))
        << value;
    EXPECT_TRUE(tag->Check(File("/bin/cat", EventType::Read, "/etc/shadow"))) << value;
  }
  const fakes::LogCapture log;
  (void)Make<ExecutionTag>();
  EXPECT_EQ(log.Count("pathRegex is empty or invalid"), 1);
  EXPECT_EQ(log.Count("processRegex is empty or invalid"), 1);
  (void)Make<ExfiltrationTag>();
  EXPECT_EQ(log.Count("processRegex is empty or invalid"), 2);
  (void)Make<PersistenceTag>();
  EXPECT_EQ(log.Count("pathRegex is empty or invalid"), 2);
  (void)Make<PrivilegeEscalationTag>();
  EXPECT_EQ(log.Count("is empty or invalid"), 4) << "it has no settings of its own";
}

TEST_F(TagTest, ItsExpressionsComeFromTheSettings) {
  const fakes::LogCapture log;
  const std::string both = R"("pathRegex":"/my/.*","processRegex":"/bin/mine")";
  const auto credentials = Make<CredentialAccessTag>(both);
  EXPECT_TRUE(credentials->Check(File("/bin/mine", EventType::Read, "/my/x")));
  EXPECT_FALSE(credentials->Check(File("/bin/cat", EventType::Read, "/my/x")));
  EXPECT_FALSE(credentials->Check(File("/bin/mine", EventType::Read, "/etc/shadow")));
  const auto execution = Make<ExecutionTag>(both);
  EXPECT_TRUE(execution->Check(StartOf("/bin/mine", {"mine", "/my/x"})));
  EXPECT_FALSE(execution->Check(StartOf("/bin/bash", {"bash", "/my/x"})));
  EXPECT_FALSE(execution->Check(StartOf("/bin/mine", {"mine", "/tmp/x"})));
  const auto exfiltration = Make<ExfiltrationTag>(both);
  EXPECT_TRUE(exfiltration->Check(Connection("/bin/mine", "1.2.3.4")));
  EXPECT_FALSE(exfiltration->Check(Connection("/bin/curl", "1.2.3.4")));
  const auto persistence = Make<PersistenceTag>(both);
  EXPECT_TRUE(persistence->Check(File("/bin/x", EventType::Write, "/my/x")));
  EXPECT_FALSE(persistence->Check(File("/bin/x", EventType::Write, "/etc/passwd")));
  EXPECT_FALSE(log.Has(Message::PRIO_WARNING, "")) << log.All();
}

TEST_F(TagTest, CanBeConfiguredAgain) {
  const auto tag = Make<PersistenceTag>();
  tag->Configure(ParsedJson(R"({"pathRegex":"/my/.*"})"));
  EXPECT_TRUE(tag->Check(File("/bin/x", EventType::Write, "/my/x")));
  tag->Configure(ParsedJson("{}"));
  EXPECT_FALSE(tag->Check(File("/bin/x", EventType::Write, "/my/x")));
  const std::vector<std::shared_ptr<Tag>> all = {Make<CredentialAccessTag>(), Make<DefenseEvasionTag>(),
                                                 Make<ExecutionTag>(),        Make<ExfiltrationTag>(),
                                                 Make<PersistenceTag>(),      Make<PrivilegeEscalationTag>()};
  for (const auto& each : all) {
    try {
      each->Configure(ParsedJson("[]"));
      ADD_FAILURE() << each->GetName();
    } catch (const std::invalid_argument& error) {
      EXPECT_STREQ(error.what(), "Settings is not a valid json object") << each->GetName();
    }
  }
}

TEST_F(TagTest, SaysThatItLooks) {
  const fakes::LogCapture log;
  const std::vector<std::shared_ptr<Tag>> all = {Make<CredentialAccessTag>(), Make<DefenseEvasionTag>(),
                                                 Make<ExecutionTag>(),        Make<ExfiltrationTag>(),
                                                 Make<PersistenceTag>(),      Make<PrivilegeEscalationTag>()};
  for (const auto& each : all) {
    EXPECT_FALSE(each->Check(File("/bin/x", EventType::Read, "/srv/x"))) << each->GetName();
    EXPECT_TRUE(log.Has(Message::PRIO_DEBUG, "[IOC]: Checking for " + each->GetName() + " tag"));
  }
}

// An abnormal end has neither image nor file.
TEST_F(TagTest, AnEndWithoutAnImageIsNoTactic) {
  fakes::FakeEvent end;
  end.type = EventType::AbnormalEnd;
  end.object_type = edr::ObjectType::Process;
  end.pid = kActor;
  end.image.reset();
  const std::vector<std::shared_ptr<Tag>> all = {Make<CredentialAccessTag>(), Make<DefenseEvasionTag>(),
                                                 Make<ExecutionTag>(),        Make<ExfiltrationTag>(),
                                                 Make<PersistenceTag>(),      Make<PrivilegeEscalationTag>()};
  for (const auto& each : all) EXPECT_FALSE(each->Check(end)) << each->GetName();
}

// CredentialAccess

using CredentialAccessTagTest = TagsFixture;

TEST_F(CredentialAccessTagTest, AReaderOfFilesTouchesCredentials) {
  const auto tag = Make<CredentialAccessTag>();
  for (const EventType type : kFileTypes) {
    EXPECT_TRUE(tag->Check(File("/usr/bin/cat", type, "/etc/shadow")));
    EXPECT_FALSE(tag->Check(File("/usr/sbin/sshd", type, "/etc/shadow"))) << "not one of those programs";
    EXPECT_FALSE(tag->Check(File("/usr/bin/cat", type, "/etc/motd")));
  }
  EXPECT_FALSE(tag->Check(Folder("/usr/bin/cat", EventType::Create, "/etc/systemd/x"))) << "folders are none";
  EXPECT_FALSE(tag->Check(Connection("/usr/bin/cat", "/etc/shadow")));
}

TEST_F(CredentialAccessTagTest, OfARenameEachEndCounts) {
  const auto tag = Make<CredentialAccessTag>();
  EXPECT_TRUE(tag->Check(Rename("/bin/mv", "/etc/shadow", "/srv/x")));
  EXPECT_TRUE(tag->Check(Rename("/bin/mv", "/srv/x", "/etc/shadow")));
  EXPECT_FALSE(tag->Check(Rename("/bin/mv", "/srv/x", "/srv/y")));
  fakes::FakeEvent write = File("/bin/mv", EventType::Write, "/srv/x");
  write.new_file = common::ImageInfo("/etc/shadow");
  EXPECT_FALSE(tag->Check(write)) << "nothing else has two ends";
}

TEST_F(CredentialAccessTagTest, AnExclusionOfEitherEndHoldsForARename) {
  const auto tag = Make<CredentialAccessTag>(Excluding("/bin/mv", "/etc/shadow"));
  EXPECT_FALSE(tag->Check(Rename("/bin/mv", "/etc/shadow", "/etc/passwd")));
  EXPECT_FALSE(tag->Check(Rename("/bin/mv", "/etc/passwd", "/etc/shadow")));
  EXPECT_TRUE(tag->Check(Rename("/bin/mv", "/etc/passwd", "/etc/group")));
  EXPECT_FALSE(tag->Check(File("/bin/mv", EventType::Read, "/etc/shadow")));
  EXPECT_TRUE(tag->Check(File("/bin/cat", EventType::Read, "/etc/shadow")));
}

TEST_F(CredentialAccessTagTest, WhoHasItDoesNotEarnItAgain) {
  const auto tag = Make<CredentialAccessTag>();
  Process(kActor).AddTag("CredentialAccess");
  EXPECT_FALSE(tag->Check(File("/bin/cat", EventType::Read, "/etc/shadow")));
}

TEST_F(CredentialAccessTagTest, AReaderIsStartedWithThePathOfCredentials) {
  const auto tag = Make<CredentialAccessTag>();
  EXPECT_TRUE(tag->Check(StartOf("/usr/bin/cat", {"cat", "/etc/shadow"})));
  EXPECT_TRUE(tag->Check(StartOf("/usr/bin/cat", {"cat", "-n", "/srv/x", "/etc/shadow"})));
  EXPECT_TRUE(tag->Check(StartOf("/usr/bin/cat", {"/etc/shadow"}))) << "its own name, too";
  EXPECT_FALSE(tag->Check(StartOf("/usr/bin/cat", {"cat", "etc/shadow"})));
  EXPECT_FALSE(tag->Check(StartOf("/usr/bin/cat", {"cat", "--file=/etc/shadow"})));
  EXPECT_FALSE(tag->Check(StartOf("/usr/bin/cat", {})));
  EXPECT_FALSE(tag->Check(StartOf("/usr/bin/grep", {"grep", "x", "/etc/shadow"})));
  EXPECT_FALSE(tag->Check(StartOf("/bin/bash", {"bash", "/etc/shadow"})));
}

TEST_F(CredentialAccessTagTest, ExcludedArgumentsDoNotCount) {
  const auto tag = Make<CredentialAccessTag>(Excluding("/bin/cat", "/etc/shadow"));
  EXPECT_FALSE(tag->Check(StartOf("/bin/cat", {"cat", "/etc/shadow"})));
  EXPECT_TRUE(tag->Check(StartOf("/bin/cat", {"cat", "/etc/shadow", "/etc/passwd"})));
  EXPECT_FALSE(Make<CredentialAccessTag>(Excluding("/bin/cat"))->Check(StartOf("/bin/cat", {"cat", "/etc/passwd"})));
}

TEST_F(CredentialAccessTagTest, WhoseParentHasItDoesNotEarnItByAStart) {
  const auto tag = Make<CredentialAccessTag>();
  Process(kShell).AddTag("CredentialAccess");
  EXPECT_FALSE(tag->Check(StartOf("/bin/cat", {"cat", "/etc/shadow"})));
  EXPECT_TRUE(tag->Check(File("/bin/cat", EventType::Read, "/etc/shadow"))) << "only starts are passed over";
}

TEST_F(CredentialAccessTagTest, WhoHasNoParentDoesNotEarnItByAStart) {
  fakes::FakeEvent start = StartOf("/bin/cat", {"cat", "/etc/shadow"});
  start.pid = kInit;
  start.ppid = 0;
  EXPECT_FALSE(Make<CredentialAccessTag>()->Check(start));
}

TEST_F(CredentialAccessTagTest, AChildOfProcess1EarnsItByAStart) {
  Exec(95, kInit, "/bin/cat");
  fakes::FakeEvent start = StartOf("/bin/cat", {"cat", "/etc/shadow"});
  start.pid = 95;
  start.ppid = kInit;
  EXPECT_TRUE(Make<CredentialAccessTag>()->Check(start));
}

// DefenseEvasion

using DefenseEvasionTagTest = TagsFixture;

TEST_F(DefenseEvasionTagTest, WhoHasItKeepsIt) {
  Process(kActor).AddTag("DefenseEvasion");
  EXPECT_TRUE(Make<DefenseEvasionTag>()->Check(Connection("/bin/x", "1.2.3.4")));
}

TEST_F(DefenseEvasionTagTest, AHiddenFileIsMadeOrChangedButNotRead) {
  const auto tag = Make<DefenseEvasionTag>();
  for (const EventType type : kFileTypes) {
    EXPECT_EQ(tag->Check(File("/bin/x", type, "/srv/.hidden")), type != EventType::Read);
    EXPECT_FALSE(tag->Check(File("/bin/x", type, "/srv/.folder/file"))) << "the file's own name counts";
    EXPECT_FALSE(tag->Check(File("/bin/x", type, "/srv/not.hidden")));
  }
  EXPECT_TRUE(tag->Check(Rename("/bin/mv", "/srv/x", "/srv/.x")));
  EXPECT_TRUE(tag->Check(Rename("/bin/mv", "/srv/.x", "/srv/x")));
  EXPECT_FALSE(tag->Check(Rename("/bin/mv", "/srv/x", "/srv/y")));
  EXPECT_FALSE(tag->Check(Folder("/bin/mkdir", EventType::Create, "/srv/.folder")));
  EXPECT_FALSE(tag->Check(StartOf("/srv/.tool", {".tool"})));
}

TEST_F(DefenseEvasionTagTest, HiddenIsWhatPocoCallsHidden) {
  const auto tag = Make<DefenseEvasionTag>();
  const std::vector<std::string> hidden = {"/.x",       "/srv/.x",   "/srv/.x/",   "/srv/.x//", "/srv/.x/y/..",
                                           "/srv/..",   "/srv/.",    "/srv//.x",   "/srv/...",  "/srv/x/.",
                                           "/srv/a/..", ".x",        "srv/.x",     "..",        "../.x",
                                           "~/.x",      "/srv/x:.x", "/.x/./../.y"};
  const std::vector<std::string> shown = {"/",        "//",    "/srv",      "/srv/x",   "/srv/x/",  "/srv/.x/y",
                                          "/srv/./x", "/./x",  "/srv/.x/.", "/srv/./",  "/srv/../", "/.x/../y",
                                          "x",        "srv/x", "~/x",       "/srv/x./", "/srv/x.",  "/srv/~"};
  for (const auto* paths : {&hidden, &shown}) {
    for (const std::string& path : *paths) {
      const bool is_hidden = Poco::File(path).isHidden();
      EXPECT_EQ(tag->Check(File("/bin/x", EventType::Write, path)), is_hidden) << path;
    }
  }
}

TEST_F(DefenseEvasionTagTest, AFileWithoutAPathIsNotHidden) {
  EXPECT_FALSE(Make<DefenseEvasionTag>()->Check(File("/bin/x", EventType::Write, "")));
  EXPECT_THROW((void)Poco::File("").isHidden(), Poco::Exception) << "who is asked cannot tell";
  fakes::FakeEvent event = File("/bin/x", EventType::AttributeChange, "/srv/x");
  event.file.reset();
  EXPECT_FALSE(Make<DefenseEvasionTag>()->Check(event));
}

TEST_F(DefenseEvasionTagTest, ItSaysWhichTechniqueApplies) {
  const auto tag = Make<DefenseEvasionTag>();
  const auto said = [&](const fakes::FakeEvent& event, const std::string& line) {
    const fakes::LogCapture log;
    (void)tag->Check(event);
    return log.Has(Message::PRIO_DEBUG, "[IOC]: " + line + " for this process id 60");
  };
  const auto hidden = File("/bin/x", EventType::Write, "/srv/.x");
  EXPECT_TRUE(said(hidden, "Defense Evasion Hidden Artifacts technique is applicable"));
  EXPECT_FALSE(said(hidden, "Defense Evasion tactic is not applicable"));
  EXPECT_TRUE(said(Chmod(640, 4755), "Defense Evasion Permissions Change technique is applicable"));
  EXPECT_FALSE(said(Chmod(640, 4755), "Defense Evasion tactic is not applicable"));
  EXPECT_TRUE(said(Chmod(640, 640), "Defense Evasion tactic is not applicable"));
  const fakes::LogCapture log;
  (void)tag->Check(Chmod(640, 640));
  EXPECT_TRUE(log.Has(Message::PRIO_DEBUG, "[IOC]: Checking if executable tag is applicable here for process id 60"));
}

TEST_F(DefenseEvasionTagTest, AChangeOfASpecialBitCounts) {
  const auto tag = Make<DefenseEvasionTag>(R"("permissions":[])");
  for (const std::uint32_t special : {1000U, 2000U, 4000U, 7000U}) {
    EXPECT_TRUE(tag->Check(Chmod(640, 640 + special))) << special;
    EXPECT_TRUE(tag->Check(Chmod(640 + special, 640))) << special << " is lost";
    EXPECT_FALSE(tag->Check(Chmod(640 + special, 640 + special))) << special << " stays";
  }
  EXPECT_TRUE(tag->Check(Chmod(4640, 2640)));
}

// As octal digits: the bits of the numbers themselves would say otherwise.
TEST_F(DefenseEvasionTagTest, ModesAreReadAsOctalDigits) {
  const auto tag = Make<DefenseEvasionTag>(R"("permissions":[])");
  EXPECT_EQ(4755 & 07000, 01000);
  EXPECT_FALSE(tag->Check(Chmod(4755, 4755)));
  EXPECT_FALSE(tag->Check(Chmod(640, 600))) << "another decimal number with other low bits";
  EXPECT_FALSE(tag->Check(Chmod(600, 664)));
  EXPECT_FALSE(tag->Check(Chmod(777, 0)));
  EXPECT_TRUE(tag->Check(Chmod(777, 1777)));
  EXPECT_TRUE(tag->Check(Chmod(0, 7777)));
}

TEST_F(DefenseEvasionTagTest, AnExecuteBitThatIsGainedCounts) {
  const auto tag = Make<DefenseEvasionTag>(R"("permissions":[])");
  EXPECT_TRUE(tag->Check(Chmod(640, 740)));
  EXPECT_TRUE(tag->Check(Chmod(640, 650)));
  EXPECT_TRUE(tag->Check(Chmod(640, 641)));
  EXPECT_TRUE(tag->Check(Chmod(700, 710))) << "for the group as well now";
  EXPECT_TRUE(tag->Check(Chmod(710, 701)));
  EXPECT_FALSE(tag->Check(Chmod(750, 750)));
  EXPECT_FALSE(tag->Check(Chmod(755, 644)));
  EXPECT_FALSE(tag->Check(Chmod(640, 666)));
}

TEST_F(DefenseEvasionTagTest, ClearingBitsDownToAModeThatIsNotListedDoesNotCount) {
  const auto tag = Make<DefenseEvasionTag>();
  EXPECT_FALSE(tag->Check(Chmod(755, 640)));
  EXPECT_FALSE(tag->Check(Chmod(644, 440)));
  EXPECT_TRUE(tag->Check(Chmod(755, 644))) << "644 is listed";
}

TEST_F(DefenseEvasionTagTest, ListedModesCountWhereAFileGetsOne) {
  const auto tag = Make<DefenseEvasionTag>(R"("permissions":[640])");
  EXPECT_TRUE(tag->Check(Chmod(644, 640)));
  EXPECT_TRUE(tag->Check(Chmod(640, 640)));
  EXPECT_FALSE(tag->Check(Chmod(640, 644))) << "what it was does not matter";
  fakes::FakeEvent create = File("/bin/x", EventType::Create, "/srv/x");
  create.file = Object("/srv/x", 640);
  EXPECT_TRUE(tag->Check(create));
  create.file = Object("/srv/x", 644);
  create.new_file = Object("/srv/x", 640);
  EXPECT_FALSE(tag->Check(create));
  fakes::FakeEvent rename = Rename("/bin/mv", "/srv/x", "/srv/y");
  rename.file = Object("/srv/x", 644);
  rename.new_file = Object("/srv/y", 640);
  EXPECT_TRUE(tag->Check(rename));
  rename.file = Object("/srv/x", 640);
  rename.new_file = Object("/srv/y", 644);
  EXPECT_FALSE(tag->Check(rename));
  for (const EventType type : {EventType::Write, EventType::Read, EventType::Delete}) {
    fakes::FakeEvent event = File("/bin/x", type, "/srv/x");
    event.file = Object("/srv/x", 640);
    event.new_file = Object("/srv/x", 640);
    EXPECT_FALSE(tag->Check(event));
  }
}

TEST_F(DefenseEvasionTagTest, TheseModesAreListedByDefault) {
  const auto tag = Make<DefenseEvasionTag>();
  const std::set<std::uint32_t> listed = {0,   777, 666,  664,  644,  600,  700,  750,  711,  744,
                                          775, 755, 1777, 4777, 6777, 2770, 6700, 2777, 7777, 4755};
  for (std::uint32_t mode = 0; mode <= 7777; ++mode) {
    if (std::to_string(mode).find_first_of("89") != std::string::npos) continue;
    fakes::FakeEvent create = File("/bin/x", EventType::Create, "/srv/x");
    create.file = Object("/srv/x", mode);
    EXPECT_EQ(tag->Check(create), listed.count(mode) != 0) << mode;
  }
}

TEST_F(DefenseEvasionTagTest, AnUnknownModeIsNone) {
  const auto tag = Make<DefenseEvasionTag>(R"("permissions":[640])");
  constexpr auto kUnknown = static_cast<std::uint32_t>(-1);
  EXPECT_FALSE(tag->Check(Chmod(kUnknown, 7777)));
  EXPECT_FALSE(tag->Check(Chmod(644, kUnknown)));
  EXPECT_TRUE(tag->Check(Chmod(kUnknown, 640)));
  fakes::FakeEvent event = Chmod(644, 755);
  event.new_file.reset();
  EXPECT_FALSE(tag->Check(event));
}

TEST_F(DefenseEvasionTagTest, ListsThatMakeNoSenseAreToldAndTheirSoundPartIsUsed) {
  {
    const fakes::LogCapture log;
    (void)Make<DefenseEvasionTag>();
    EXPECT_TRUE(log.Has(Message::PRIO_WARNING,
                        "[IOC]: Missing permissions from DefenseEvasion tag. Using default permissions ..."));
  }
  for (const char* list : {"755", "{}", "null"}) {
    const fakes::LogCapture log;
    const auto tag = Make<DefenseEvasionTag>(std::string(R"("permissions":)") + list);
    EXPECT_TRUE(log.Has(Message::PRIO_WARNING,
                        "[IOC]: Expected an array of suspicious permissions for DefenseEvasion tag. Using default "
                        "permissions ..."));
    EXPECT_TRUE(tag->Check(Chmod(640, 644)));
  }
  const fakes::LogCapture log;
  const auto tag = Make<DefenseEvasionTag>(R"("permissions":[640,"644",-1,6.5,null,440])");
  for (const int index : {1, 2, 3, 4}) {
    EXPECT_TRUE(log.Has(Message::PRIO_WARNING, "[IOC]: Invalid permission found at index " + std::to_string(index) +
                                                   " in definition of DefenseEvasion tag"));
  }
  EXPECT_EQ(log.Count("Invalid permission found"), 4);
  EXPECT_TRUE(tag->Check(Chmod(644, 640)));
  EXPECT_TRUE(tag->Check(Chmod(644, 440)));
  EXPECT_FALSE(tag->Check(Chmod(640, 644)));
}

TEST_F(DefenseEvasionTagTest, ExclusionsHoldForBothTechniques) {
  const auto tag = Make<DefenseEvasionTag>(Excluding("/bin/.*", "/srv/.*"));
  EXPECT_FALSE(tag->Check(File("/bin/x", EventType::Write, "/srv/.x")));
  EXPECT_TRUE(tag->Check(File("/bin/x", EventType::Write, "/mnt/.x")));
  EXPECT_FALSE(tag->Check(Chmod(640, 4755, "/srv/x")));
  EXPECT_TRUE(tag->Check(Chmod(640, 4755, "/mnt/x")));
  EXPECT_FALSE(tag->Check(Rename("/bin/mv", "/srv/x", "/mnt/.x"))) << "by the path that it had";
  EXPECT_TRUE(tag->Check(Rename("/bin/mv", "/mnt/x", "/srv/.x")));
}

// Execution

using ExecutionTagTest = TagsFixture;

TEST_F(ExecutionTagTest, AScriptIsRunByItsName) {
  const auto tag = Make<ExecutionTag>();
  fakes::FakeEvent start = StartOf("/usr/bin/anything", {"anything", "/srv/x"});
  start.secondary_image = common::ImageInfo("/tmp/script");
  EXPECT_TRUE(tag->Check(start)) << "whatever the interpreter is";
  start.secondary_image = common::ImageInfo("/srv/script");
  start.image = common::ImageInfo("/bin/bash");
  start.arguments = {"bash", "/tmp/x"};
  EXPECT_FALSE(tag->Check(start)) << "the arguments are the script's";
}

TEST_F(ExecutionTagTest, AnInterpreterIsGivenAScript) {
  const auto tag = Make<ExecutionTag>();
  EXPECT_TRUE(tag->Check(StartOf("/bin/bash", {"bash", "/tmp/x"})));
  EXPECT_TRUE(tag->Check(StartOf("/usr/bin/python3", {"python3", "/opt/x.py", "argument"})));
  EXPECT_FALSE(tag->Check(StartOf("/bin/bash", {"bash", "/srv/x"})));
  EXPECT_FALSE(tag->Check(StartOf("/bin/bash", {"bash", "/srv/x", "/tmp/x"}))) << "the first one is the script";
  EXPECT_FALSE(tag->Check(StartOf("/usr/bin/ruby", {"ruby", "/tmp/x"})));
  EXPECT_FALSE(tag->Check(StartOf("/bin/bash", {"bash"})));
  EXPECT_FALSE(tag->Check(StartOf("/bin/bash", {"/tmp/x"}))) << "its own name is no argument";
  EXPECT_FALSE(tag->Check(StartOf("/bin/bash", {})));
  fakes::FakeEvent later = StartOf("/bin/bash", {"bash", "/tmp/x"});
  for (const EventType type : {EventType::ProcessClone, EventType::ProcessExit, EventType::AbnormalEnd}) {
    later.type = type;
    EXPECT_FALSE(tag->Check(later)) << "only starts count";
  }
}

TEST_F(ExecutionTagTest, OptionsAreNotTheScript) {
  const auto tag = Make<ExecutionTag>();
  const auto runs = [&](std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "bash");
    return tag->Check(StartOf("/bin/bash", std::move(arguments)));
  };
  EXPECT_TRUE(runs({"-x", "--norc", "/tmp/x"}));
  EXPECT_FALSE(runs({"-x", "-/tmp/x"}));
  EXPECT_TRUE(runs({"", "/tmp/x"})) << "empty ones are passed over";
  EXPECT_FALSE(runs({"", ""}));
  EXPECT_TRUE(runs({"--rcfile", "/tmp/x", "/tmp/y"}));
  EXPECT_FALSE(runs({"--rcfile", "/tmp/x", "/srv/y"})) << "the script is /srv/y";
  EXPECT_FALSE(runs({"--rcfile", "/tmp/x"}));
  EXPECT_FALSE(runs({"--init-file", "/tmp/x"}));
  EXPECT_TRUE(runs({"--init-file=/srv/x", "/tmp/y"}));
  EXPECT_TRUE(runs({"--", "/tmp/x"}));
  EXPECT_TRUE(runs({"-c", "/tmp/x"})) << "a command that is the path alone";
  EXPECT_FALSE(runs({"-c", "cat /tmp/x"}));
}

TEST_F(ExecutionTagTest, BehindTwoDashesEverythingIsTheScript) {
  const auto tag = Make<ExecutionTag>();
  fakes::FakeEvent start = StartOf("/bin/bash", {"bash", "--", "-x"});
  EXPECT_FALSE(tag->Check(start)) << "/srv/here/-x";
  start.cwd = "/tmp";
  EXPECT_TRUE(tag->Check(start)) << "/tmp/-x";
  EXPECT_TRUE(tag->Check(StartOf("/bin/bash", {"--", "/tmp/x"}))) << "whatever the dashes are for";
  start.arguments = {"bash", "--", "", "-x"};
  EXPECT_FALSE(tag->Check(start)) << "the empty one stands behind them";
}

TEST_F(ExecutionTagTest, ARelativeScriptLiesInTheWorkingFolder) {
  const auto tag = Make<ExecutionTag>();
  fakes::FakeEvent start = StartOf("/bin/bash", {"bash", "x"});
  EXPECT_FALSE(tag->Check(start));
  start.cwd = "/var/tmp";
  EXPECT_TRUE(tag->Check(start));
  start.cwd = "/srv";
  start.arguments = {"bash", "../tmp/x"};
  EXPECT_FALSE(tag->Check(start)) << "the text as it is: /srv/../tmp/x";
}

TEST_F(ExecutionTagTest, ExclusionsNameTheScript) {
  const auto tag = Make<ExecutionTag>(Excluding("/bin/.*", "/tmp/good.*"));
  EXPECT_FALSE(tag->Check(StartOf("/bin/bash", {"bash", "/tmp/good.sh"})));
  EXPECT_TRUE(tag->Check(StartOf("/bin/bash", {"bash", "/tmp/bad.sh"})));
  fakes::FakeEvent start = StartOf("/bin/sh", {"sh"});
  start.secondary_image = common::ImageInfo("/tmp/good.sh");
  EXPECT_FALSE(tag->Check(start));
  start.secondary_image = common::ImageInfo("/tmp/bad.sh");
  EXPECT_TRUE(tag->Check(start));
}

// Exfiltration

using ExfiltrationTagTest = TagsFixture;

TEST_F(ExfiltrationTagTest, AProgramThatCanSendFilesUsesTheNetwork) {
  const auto tag = Make<ExfiltrationTag>();
  for (const EventType type : {EventType::Connect, EventType::Accept, EventType::Bind}) {
    EXPECT_TRUE(tag->Check(Connection("/usr/bin/curl", "1.2.3.4", type)));
    EXPECT_FALSE(tag->Check(Connection("/usr/bin/apt", "1.2.3.4", type)));
  }
  EXPECT_FALSE(tag->Check(File("/usr/bin/curl", EventType::Read, "/etc/passwd")));
  EXPECT_FALSE(tag->Check(StartOf("/usr/bin/curl", {"curl", "https://x.example"})));
}

TEST_F(ExfiltrationTagTest, ExclusionsNameTheAddress) {
  const auto tag = Make<ExfiltrationTag>(Excluding("/usr/bin/curl", "10\\\\..*"));
  EXPECT_FALSE(tag->Check(Connection("/usr/bin/curl", "10.1.2.3")));
  EXPECT_TRUE(tag->Check(Connection("/usr/bin/curl", "110.1.2.3")));
  EXPECT_TRUE(tag->Check(Connection("/usr/bin/wget", "10.1.2.3")));
  EXPECT_FALSE(tag->Check(Connection("/usr/bin/curl", ""))) << "an unknown address may be any";
}

TEST_F(ExfiltrationTagTest, WhoHasItDoesNotEarnItAgain) {
  Process(kActor).AddTag("Exfiltration");
  EXPECT_FALSE(Make<ExfiltrationTag>()->Check(Connection("/usr/bin/curl", "1.2.3.4")));
}

// Persistence

using PersistenceTagTest = TagsFixture;

TEST_F(PersistenceTagTest, AFileThatIsRunLaterIsChangedButNotRead) {
  const auto tag = Make<PersistenceTag>();
  for (const EventType type : kFileTypes) {
    EXPECT_EQ(tag->Check(File("/bin/x", type, "/etc/cron.d/x")), type != EventType::Read);
    EXPECT_FALSE(tag->Check(File("/bin/x", type, "/srv/cron.d/x")));
  }
  EXPECT_FALSE(tag->Check(Folder("/bin/mkdir", EventType::Create, "/etc/cron.d/x")));
  EXPECT_FALSE(tag->Check(Connection("/bin/x", "/etc/cron.d/x")));
}

TEST_F(PersistenceTagTest, OfARenameEachEndCounts) {
  const auto tag = Make<PersistenceTag>();
  EXPECT_TRUE(tag->Check(Rename("/bin/mv", "/srv/x", "/etc/cron.d/x")));
  EXPECT_TRUE(tag->Check(Rename("/bin/mv", "/etc/cron.d/x", "/srv/x")));
  EXPECT_FALSE(tag->Check(Rename("/bin/mv", "/srv/x", "/srv/y")));
}

TEST_F(PersistenceTagTest, AnExclusionOfEitherEndHoldsForARename) {
  const auto tag = Make<PersistenceTag>(Excluding("/bin/mv", "/etc/cron.d/good"));
  EXPECT_FALSE(tag->Check(Rename("/bin/mv", "/etc/cron.d/good", "/etc/cron.d/bad")));
  EXPECT_FALSE(tag->Check(Rename("/bin/mv", "/etc/cron.d/bad", "/etc/cron.d/good")));
  EXPECT_TRUE(tag->Check(Rename("/bin/mv", "/etc/cron.d/bad", "/etc/cron.d/worse")));
  EXPECT_FALSE(tag->Check(File("/bin/mv", EventType::Write, "/etc/cron.d/good")));
}

TEST_F(PersistenceTagTest, WhoHasItKeepsIt) {
  Process(kActor).AddTag("Persistence");
  EXPECT_TRUE(Make<PersistenceTag>()->Check(File("/bin/x", EventType::Read, "/srv/x")));
}

// PrivilegeEscalation

using PrivilegeEscalationTagTest = TagsFixture;

TEST_F(PrivilegeEscalationTagTest, WhoActsAsRootAndIsNot) {
  const auto tag = Make<PrivilegeEscalationTag>();
  fakes::FakeEvent event = File("/usr/bin/vim", EventType::Write, "/srv/x");
  EXPECT_FALSE(tag->Check(event));
  event.elevated = true;
  EXPECT_TRUE(tag->Check(event));
  fakes::FakeEvent start = StartOf("/usr/bin/id", {"id"});
  start.elevated = true;
  EXPECT_TRUE(tag->Check(start)) << "by whatever it does";
  Process(kActor).AddTag("PrivilegeEscalation");
  EXPECT_FALSE(tag->Check(event)) << "who has it does not earn it again";
}

TEST_F(PrivilegeEscalationTagTest, AnExclusionOfTheProgramHoldsWhateverItsPatternIs) {
  const auto tag = Make<PrivilegeEscalationTag>(Excluding("/usr/bin/sudo", "/nowhere"));
  fakes::FakeEvent event = StartOf("/usr/bin/sudo", {"sudo", "id"});
  event.elevated = true;
  EXPECT_FALSE(tag->Check(event));
  event.image = common::ImageInfo("/usr/bin/sudoedit");
  EXPECT_TRUE(tag->Check(event));
}

TEST_F(PrivilegeEscalationTagTest, AnAbnormalEndIsOfTheProgramThatTheTreeKnows) {
  fakes::FakeEvent end;
  end.type = EventType::AbnormalEnd;
  end.object_type = edr::ObjectType::Process;
  end.pid = kActor;
  end.image.reset();
  end.elevated = true;
  const std::string program = Process(kActor).GetImage()->GetPath();
  EXPECT_TRUE(Make<PrivilegeEscalationTag>(Excluding("/usr/bin/sudo", ""))->Check(end));
  EXPECT_FALSE(Make<PrivilegeEscalationTag>(Excluding(program, ""))->Check(end));
}

}  // namespace
}  // namespace zagent::ioc::internal
