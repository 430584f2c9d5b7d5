// What each criterion of a rule for indicators of compromise matches.
#include "src/ioc/rules/DirectoryCriteria.h"
#include "src/ioc/rules/FileCriteria.h"
#include "src/ioc/rules/FiletypeCriteria.h"
#include "src/ioc/rules/GlobalCriteria.h"
#include "src/ioc/rules/NetworkCriteria.h"
#include "src/ioc/rules/ProcessCriteria.h"
#include "tests/src/ioc/rules/RulesFixture.h"

namespace zagent::ioc::internal {
namespace {

using edr::EventType;
using Group = edr::FilterCriteria::Group;
using Globs = std::vector<edr::PathGlob>;

constexpr auto kIn = Group::Inclusion;
constexpr auto kOut = Group::Exclusion;

class CriteriaTest : public RulesFixture {
 protected:
  static Globs Patterns(const std::string& array) { return edr::FilterCriteria::ParsePatterns(ParsedJson(array)); }
};

// Files

TEST_F(CriteriaTest, AFileIsKnownByItsPath) {
  const fakes::LogCapture log;
  const FileCriteria shadow(kIn, Patterns(R"(["shadow","/etc/p*"])"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Setting File Patterns"));
  EXPECT_TRUE(shadow.Match(FileEvent("/etc/shadow")));
  EXPECT_TRUE(shadow.Match(FileEvent("/etc/passwd")));
  EXPECT_FALSE(shadow.Match(FileEvent("/etc/group")));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Matching File Filters"));
}

TEST_F(CriteriaTest, AProgramIsKnownByItsImageAndByItsScript) {
  const FileCriteria job(kIn, Patterns(R"(["/opt/job.sh"])"));
  fakes::FakeEvent start = StartEvent("/bin/dash");
  EXPECT_FALSE(job.Match(start));
  start.secondary_image = common::ImageInfo("/opt/job.sh");
  EXPECT_TRUE(job.Match(start));
  EXPECT_TRUE(FileCriteria(kIn, Patterns(R"(["dash"])")).Match(start));
  start.image.reset();
  start.secondary_image.reset();
  EXPECT_FALSE(job.Match(start)) << "nobody knows its program";
}

TEST_F(CriteriaTest, FoldersAndConnectionsAreNoFiles) {
  const FileCriteria all(kIn, Patterns(R"(["*"])"));
  EXPECT_FALSE(all.Match(DirectoryEvent("/etc", EventType::Delete)));
  EXPECT_FALSE(all.Match(NetworkEvent("1.2.3.4", 80)));
}

TEST_F(CriteriaTest, WithoutPatternsAnInclusionPassesAndAnExclusionNeverFires) {
  const fakes::FakeEvent file = FileEvent("/etc/x");
  EXPECT_TRUE(FileCriteria(kIn, {}).Match(file));
  EXPECT_FALSE(FileCriteria(kOut, {}).Match(file));
  EXPECT_TRUE(DirectoryCriteria(kIn, {}).Match(file));
  EXPECT_FALSE(DirectoryCriteria(kOut, {}).Match(file));
  EXPECT_TRUE(ProcessCriteria(kIn, {}, *tree_).Match(file));
  EXPECT_FALSE(ProcessCriteria(kOut, {}, *tree_).Match(file));
  EXPECT_TRUE(NetworkCriteria(kIn, {}).Match(NetworkEvent("1.2.3.4", 80)));
  EXPECT_FALSE(NetworkCriteria(kOut, {}).Match(NetworkEvent("1.2.3.4", 80)));
  EXPECT_TRUE(GlobalCriteria(kIn, {}, *tree_).Match(file));
  EXPECT_TRUE(GlobalCriteria(kOut, {}, *tree_).Match(file)) << "trusted programs need no known parent";
  EXPECT_FALSE(FiletypeCriteria(ParsedJson("[]")).Match([&] {
    fakes::FakeEvent known = file;
    known.file_type_desc = "ASCII text";
    return known;
  }()));
}

TEST_F(CriteriaTest, EitherPathOfARenameIncludesAndBothExclude) {
  const Globs tmp = Patterns(R"(["/tmp/*"])");
  const fakes::FakeEvent out = RenameEvent("/tmp/x", "/etc/passwd");
  const fakes::FakeEvent in = RenameEvent("/etc/passwd", "/tmp/x");
  const fakes::FakeEvent within = RenameEvent("/tmp/a", "/tmp/b");
  const fakes::FakeEvent elsewhere = RenameEvent("/etc/a", "/etc/b");
  for (const fakes::FakeEvent* event : {&out, &in, &within}) EXPECT_TRUE(FileCriteria(kIn, tmp).Match(*event));
  EXPECT_FALSE(FileCriteria(kIn, tmp).Match(elsewhere));
  for (const fakes::FakeEvent* event : {&out, &in, &elsewhere}) EXPECT_FALSE(FileCriteria(kOut, tmp).Match(*event));
  EXPECT_TRUE(FileCriteria(kOut, tmp).Match(within));
}

TEST_F(CriteriaTest, ARenameOutOfAnExcludedFolderIsNotExcluded) {
  const DirectoryCriteria tmp(kOut, Patterns(R"(["/tmp"])"));
  EXPECT_FALSE(tmp.Match(RenameEvent("/tmp/x", "/etc/passwd")));
  EXPECT_FALSE(tmp.Match(RenameEvent("/etc/passwd", "/tmp/x")));
  EXPECT_TRUE(tmp.Match(RenameEvent("/tmp/a", "/tmp/b")));
  EXPECT_TRUE(DirectoryCriteria(kIn, Patterns(R"(["/tmp"])")).Match(RenameEvent("/etc/x", "/tmp/x")));
}

// Folders

TEST_F(CriteriaTest, AFolderIsThatOfTheFileOrItself) {
  const fakes::LogCapture log;
  const DirectoryCriteria ssh(kIn, Patterns(R"(["/etc/ssh"])"));
  EXPECT_TRUE(log.Has("Setting Directory Patterns"));
  EXPECT_TRUE(ssh.Match(FileEvent("/etc/ssh/sshd_config")));
  EXPECT_FALSE(ssh.Match(FileEvent("/etc/ssh")));
  EXPECT_TRUE(ssh.Match(DirectoryEvent("/etc/ssh", EventType::Delete)));
  EXPECT_TRUE(ssh.Match(DirectoryEvent("/etc/ssh//", EventType::Delete)));
  EXPECT_FALSE(ssh.Match(NetworkEvent("1.2.3.4", 80)));
  EXPECT_FALSE(ssh.Match(StartEvent("/etc/ssh")));
  EXPECT_TRUE(DirectoryCriteria(kIn, Patterns(R"(["/"])")).Match(FileEvent("/vmlinuz")));
  EXPECT_TRUE(log.Has("Matching Directory Filters"));
}

TEST_F(CriteriaTest, APatternOfAFolderTakesWhatIsBelowIt) {
  const DirectoryCriteria etc(kIn, Patterns(R"(["/etc"])"));
  EXPECT_TRUE(etc.Match(FileEvent("/etc/ssh/sshd_config")));
  EXPECT_FALSE(etc.Match(FileEvent("/etcetera/x")));
}

// Types

TEST_F(CriteriaTest, ATypeIsFoundAnywhereInWhatLibmagicSaysInWhateverCase) {
  const fakes::LogCapture log;
  const FiletypeCriteria elf(ParsedJson(R"(["elf 64","script"])"));
  EXPECT_TRUE(log.Has("Setting FileType Filters"));
  fakes::FakeEvent event = FileEvent("/tmp/x");
  event.file_type_desc = "ELF 64-bit LSB executable";
  EXPECT_TRUE(elf.Match(event));
  event.file_type_desc = "POSIX shell Script";
  EXPECT_TRUE(elf.Match(event));
  event.file_type_desc = "ASCII text";
  EXPECT_FALSE(elf.Match(event));
  EXPECT_TRUE(log.Has("Matching FileType Filters"));
}

TEST_F(CriteriaTest, ATypeThatNobodyKnowsCannotBeTold) {
  const FiletypeCriteria elf(ParsedJson(R"(["elf"])"));
  EXPECT_EQ(
      fakes::WhatOf<edr::FilterCriteriaException>([&] { (void)elf.Match(DirectoryEvent("/etc", EventType::Delete)); }),
      "Cannot match FileType criteria: Not a file event");
  EXPECT_EQ(fakes::WhatOf<edr::FilterCriteriaException>([&] { (void)elf.Match(FileEvent("/tmp/x")); }),
            "Cannot match FileType criteria: Missing file type information");
}

// Processes

TEST_F(CriteriaTest, TheActorOfAFileEventIsTheProcess) {
  const fakes::LogCapture log;
  EXPECT_TRUE(ProcessCriteria(kIn, Patterns(R"(["dash"])"), *tree_).Match(FileEvent("/etc/x")));
  EXPECT_TRUE(ProcessCriteria(kIn, Patterns(R"(["/opt/job.sh"])"), *tree_).Match(FileEvent("/etc/x"))) << "its script";
  EXPECT_FALSE(ProcessCriteria(kIn, Patterns(R"(["cron"])"), *tree_).Match(FileEvent("/etc/x")));
  EXPECT_TRUE(ProcessCriteria(kIn, Patterns(R"(["dash"])"), *tree_).Match(NetworkEvent("1.2.3.4", 80)));
  EXPECT_TRUE(log.Has("Matching Actor Process Filters"));
}

TEST_F(CriteriaTest, TheActorOfAProcessEventIsTheParent) {
  EXPECT_TRUE(ProcessCriteria(kIn, Patterns(R"(["dash"])"), *tree_).Match(StartEvent("/bin/ls")));
  EXPECT_FALSE(ProcessCriteria(kIn, Patterns(R"(["ls"])"), *tree_).Match(StartEvent("/bin/ls")));
}

TEST_F(CriteriaTest, WhoHasGotTheParentsPidSinceIsNotTheActor) {
  fakes::FakeEvent start = StartEvent("/bin/ls");
  start.timestamp = tree_->Get(start.ppid)->GetCreationTime();
  EXPECT_TRUE(ProcessCriteria(kOut, Patterns(R"(["dash"])"), *tree_).Match(start));
  start.timestamp -= 1;
  EXPECT_FALSE(ProcessCriteria(kOut, Patterns(R"(["dash"])"), *tree_).Match(start));
}

TEST_F(CriteriaTest, AnActorWhomTheTreeDoesNotKnowMatchesNothing) {
  fakes::FakeEvent event = FileEvent("/etc/x");
  event.pid = 4711;
  EXPECT_FALSE(ProcessCriteria(kIn, Patterns(R"(["*"])"), *tree_).Match(event));
  EXPECT_FALSE(ProcessCriteria(kOut, Patterns(R"(["*"])"), *tree_).Match(event));
}

TEST_F(CriteriaTest, AnyAncestorOfTheParentCounts) {
  const fakes::LogCapture log;
  const GlobalCriteria cron(kOut, Patterns(R"(["cron"])"), *tree_);
  EXPECT_TRUE(log.Has("Setting parentProcess patterns"));
  EXPECT_TRUE(cron.Match(FileEvent("/etc/x"))) << "the parent";
  EXPECT_TRUE(cron.Match(StartEvent("/bin/ls"))) << "the parent's parent";
  EXPECT_FALSE(GlobalCriteria(kOut, Patterns(R"(["sshd"])"), *tree_).Match(StartEvent("/bin/ls")));
  fakes::FakeEvent event = FileEvent("/etc/x");
  event.ppid = 1;
  EXPECT_FALSE(cron.Match(event)) << "the actor itself is no ancestor of its parent";
  for (const std::int32_t nobody : {-1, 0, 4711}) {
    event.ppid = nobody;
    EXPECT_FALSE(cron.Match(event)) << nobody;
  }
}

// Network

class NetworkCriteriaTest : public CriteriaTest {
 protected:
  static std::vector<AddressPattern> Addresses(const std::string& array) {
    return NetworkCriteria::ParseAddresses(ParsedJson(array));
  }
  static NetworkCriteria::Ports Ports(const std::string& object) {
    return NetworkCriteria::ParsePorts(ParsedJson(object));
  }
  static bool MatchesAddress(const std::string& pattern, const std::string& address) {
    return AddressPattern(pattern).Matches(address);
  }
};

TEST_F(NetworkCriteriaTest, AnAddressMatchesWhole) {
  EXPECT_TRUE(MatchesAddress(R"(10\.0\.0\.1)", "10.0.0.1"));
  EXPECT_FALSE(MatchesAddress("10.0.0.1", "110.0.0.12"));
  EXPECT_FALSE(MatchesAddress("10.0.0.1", "10.0.0.12"));
  EXPECT_FALSE(MatchesAddress("10.0.0.1$", "10.0.0.1\n"));
  EXPECT_TRUE(MatchesAddress("a|ab", "ab")) << "the longer alternative";
  EXPECT_FALSE(MatchesAddress("a|ab", "xa"));
  EXPECT_FALSE(MatchesAddress("a|b", "ax"));
  EXPECT_FALSE(MatchesAddress("a|b", "xb"));
  EXPECT_TRUE(MatchesAddress(R"(192\.168\..*)", "192.168.7.9"));
  EXPECT_FALSE(MatchesAddress("", "10.0.0.1"));
  EXPECT_TRUE(MatchesAddress("", ""));
}

TEST_F(NetworkCriteriaTest, AnExpressionThatNeverEndsIsGivenUp) {
  EXPECT_FALSE(MatchesAddress("(a+)+$", std::string(60, 'a') + "b"));
}

TEST_F(NetworkCriteriaTest, WhatIsNoExpressionIsRefused) {
  for (const char* pattern : {"(", "[", "a)|(b", R"(\Qabc)", "(?x)a#"}) {
    EXPECT_THROW(AddressPattern{pattern}, edr::FilterCriteriaException) << pattern;
  }
}

TEST_F(NetworkCriteriaTest, AnAddressIsMeantAsPeopleWriteItToo) {
  NetworkCriteria::Filters filters;
  filters.remote.addresses = Addresses(R"(["10\\.0\\.0\\.1","fe80::1","::ffff:192\\..*"])");
  const NetworkCriteria criteria(kIn, std::move(filters));
  EXPECT_TRUE(criteria.Match(NetworkEvent("10.0.0.1", 80)));
  EXPECT_TRUE(criteria.Match(NetworkEvent("::ffff:10.0.0.1", 80))) << "from a socket of IPv6";
  EXPECT_TRUE(criteria.Match(NetworkEvent("::ffff:192.168.0.1", 80))) << "as it is told";
  EXPECT_TRUE(criteria.Match(NetworkEvent("fe80::1%eth0", 80)));
  EXPECT_FALSE(criteria.Match(NetworkEvent("::ffff:110.0.0.1", 80)));
  EXPECT_FALSE(criteria.Match(NetworkEvent("192.168.0.1", 80)));
  EXPECT_FALSE(criteria.Match(NetworkEvent("fe80::12%eth0", 80)));
}

TEST_F(NetworkCriteriaTest, ABindIsHeldAgainstLocalFiltersAndAllElseAgainstRemoteOnes) {
  const fakes::LogCapture log;
  NetworkCriteria::Filters filters;
  filters.local.ports = Ports(R"({"number":[22]})");
  filters.remote.addresses = Addresses(R"(["10\\..*"])");
  const NetworkCriteria criteria(kIn, std::move(filters));
  EXPECT_TRUE(criteria.Match(NetworkEvent("0.0.0.0", 22, EventType::Bind)));
  EXPECT_TRUE(log.Has("Matching Network criteria"));
  EXPECT_TRUE(log.Has("Matching Actor criteria"));
  EXPECT_TRUE(log.Has("Matching for event's local address and port"));
  EXPECT_FALSE(log.Has("Matching for event's remote address and port"));
  EXPECT_FALSE(criteria.Match(NetworkEvent("10.1.1.1", 23, EventType::Bind)));
  EXPECT_TRUE(criteria.Match(NetworkEvent("10.1.1.1", 23)));
  EXPECT_TRUE(log.Has("Matching for event's remote address and port"));
  EXPECT_TRUE(log.Has("Matching Event IP: 10.1.1.1 with Filter IP: 10\\..*"));
  EXPECT_FALSE(criteria.Match(NetworkEvent("11.1.1.1", 22)));
  EXPECT_TRUE(criteria.Match(NetworkEvent("10.1.1.1", 23, EventType::Accept)));
}

TEST_F(NetworkCriteriaTest, WithoutAFilterOfItsSideAnEventIsAsGoodAsUnfiltered) {
  NetworkCriteria::Filters filters;
  filters.local.ports = Ports(R"({"number":[22]})");
  EXPECT_TRUE(NetworkCriteria(kIn, filters).Match(NetworkEvent("10.1.1.1", 80)));
  EXPECT_FALSE(NetworkCriteria(kOut, filters).Match(NetworkEvent("10.1.1.1", 80)));
}

TEST_F(NetworkCriteriaTest, PortsAreNumbersAndRangesWithBothEnds) {
  const fakes::LogCapture log;
  NetworkCriteria::Filters filters;
  filters.remote.ports = Ports(R"({"number":[80,443],"range":[{"min":8000,"max":8010},{"min":9,"max":9}]})");
  EXPECT_TRUE(log.Has("Parsing network port"));
  const NetworkCriteria criteria(kIn, std::move(filters));
  for (const unsigned port : {80U, 443U, 8000U, 8005U, 8010U, 9U}) {
    EXPECT_TRUE(criteria.Match(NetworkEvent("10.1.1.1", port))) << port;
  }
  for (const unsigned port : {0U, 81U, 7999U, 8011U, 8U, 10U}) {
    EXPECT_FALSE(criteria.Match(NetworkEvent("10.1.1.1", port))) << port;
  }
  for (const char* line : {"Matching port criteria", "Matching event Port value: 443 with filter port value: 80",
                           "Matching event Port value: 8005 with filter port range: [8000, 8010]",
                           "Matched Event port with filter port value", "Matched Event port with filter port range",
                           "Port criteria matched", "Port criteria not matched"}) {
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, line)) << line;
  }
}

TEST_F(NetworkCriteriaTest, AddressAndPortHoldTogether) {
  NetworkCriteria::Filters filters;
  filters.remote.addresses = Addresses(R"(["10\\..*"])");
  filters.remote.ports = Ports(R"({"number":[80]})");
  const NetworkCriteria criteria(kOut, std::move(filters));
  EXPECT_TRUE(criteria.Match(NetworkEvent("10.1.1.1", 80)));
  EXPECT_FALSE(criteria.Match(NetworkEvent("10.1.1.1", 81)));
  EXPECT_FALSE(criteria.Match(NetworkEvent("11.1.1.1", 80)));
}

// {program: none, matching, not} x {side: none, matching, not} x {group}
TEST_F(NetworkCriteriaTest, ProgramAndSideHoldTogether) {
  struct Row {
    const char* programs;
    const char* ports;
    bool included;
    bool excluded;
  };
  for (const Row& row : std::vector<Row>{{"[]", "[]", true, false},
                                         {"[]", "[80]", true, true},
                                         {"[]", "[81]", false, false},
                                         {R"(["dash"])", "[]", true, true},
                                         {R"(["dash"])", "[80]", true, true},
                                         {R"(["dash"])", "[81]", false, false},
                                         {R"(["nc"])", "[]", false, false},
                                         {R"(["nc"])", "[80]", false, false},
                                         {R"(["nc"])", "[81]", false, false}}) {
    NetworkCriteria::Filters filters;
    filters.programs = Patterns(row.programs);
    filters.protocols = {"tcp"};
    filters.remote.ports = Ports(R"({"number":)" + std::string(row.ports) + "}");
    const fakes::FakeEvent event = NetworkEvent("10.1.1.1", 80);
    EXPECT_EQ(NetworkCriteria(kIn, filters).Match(event), row.included) << row.programs << row.ports;
    EXPECT_EQ(NetworkCriteria(kOut, filters).Match(event), row.excluded) << row.programs << row.ports;
  }
}

TEST_F(NetworkCriteriaTest, ProtocolsPlayNoPart) {
  NetworkCriteria::Filters filters;
  filters.protocols = {"udp"};
  EXPECT_TRUE(NetworkCriteria(kIn, filters).Match(NetworkEvent("10.1.1.1", 80)));
  EXPECT_FALSE(NetworkCriteria(kOut, filters).Match(NetworkEvent("10.1.1.1", 80)));
}

TEST_F(NetworkCriteriaTest, ANetworkEventWithoutAProgramMatchesNoProgram) {
  NetworkCriteria::Filters filters;
  filters.programs = Patterns(R"(["*"])");
  fakes::FakeEvent event = NetworkEvent("10.1.1.1", 80);
  event.image.reset();
  EXPECT_FALSE(NetworkCriteria(kIn, filters).Match(event));
}

}  // namespace
}  // namespace zagent::ioc::internal
