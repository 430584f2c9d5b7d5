// Which events the rules for indicators of compromise match.
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/VirtualOrder.h"
#include "tests/src/ioc/rules/RulesFixture.h"

namespace zagent::ioc::internal {
namespace {

using edr::EventType;
using edr::MatchResult;

constexpr std::int64_t kMiB = 1024 * 1024;

class FileRuleTest : public RulesFixture {
 protected:
  [[nodiscard]] FileRule Etc(const std::string& depth = "All") const {
    return File(DirectoryRuleText().With("recursiveDepth", "\"" + depth + "\""));
  }
};

TEST_F(FileRuleTest, OnlyActionsOfTheNotifySetMatch) {
  const fakes::LogCapture log;
  const FileRule rule = File(FileRuleText().With("notify", R"({"File":["write"]})"));
  EXPECT_EQ(rule.Match(FileEvent("/etc/passwd")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(FileEvent("/etc/passwd", EventType::Create)), MatchResult::OutOfScope);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Matching File Rule"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Event action not found in file notify actions"));
}

TEST_F(FileRuleTest, ForeignObjectsAreNoMatterOfAFileRule) {
  const FileRule rule = File(FileRuleText());
  EXPECT_EQ(fakes::WhatOf<edr::EventRuleException>([&] { (void)rule.Match(StartEvent("/bin/ls")); }), "Invalid Rule");
  EXPECT_EQ(fakes::WhatOf<edr::EventRuleException>([&] { (void)rule.Match(NetworkEvent("1.2.3.4", 80)); }),
            "Invalid Rule");
}

TEST_F(FileRuleTest, AFolderIsMatchedByItsActionsAloneAndNeverWhenItIsMade) {
  const fakes::LogCapture log;
  const FileRule rule =
      File(DirectoryRuleText().With("recursiveDepth", R"("None")").With("exclusionFilters", R"([{"filterType":[]}])"));
  EXPECT_EQ(rule.Match(DirectoryEvent("/etc/a/b/c", EventType::Delete)), MatchResult::Matched);
  EXPECT_EQ(rule.Match(DirectoryEvent("/etc/a", EventType::Create)), MatchResult::OutOfScope);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Dropping directory create event"));
  EXPECT_EQ(rule.Match(DirectoryEvent("/etc/a", EventType::Rename)), MatchResult::OutOfScope);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Event action not found in directory notify actions"));
  EXPECT_EQ(File(FileRuleText()).Match(DirectoryEvent("/etc/passwd", EventType::Delete)), MatchResult::OutOfScope);
}

TEST_F(FileRuleTest, DepthCountsFolders) {
  struct Row {
    const char* depth;
    int levels;
  };
  for (const Row& row : {Row{"None", 0}, Row{"nOnE", 0}, Row{"0", 0}, Row{"1", 1}, Row{"2", 2}, Row{"10", 10},
                         Row{"All", 10}, Row{"aLL", 10}, Row{"11", 10}, Row{"25", 10}, Row{"4000000000", 10}}) {
    const FileRule rule = Etc(row.depth);
    std::string path = "/etc";
    for (int level = 0; level <= 12; ++level) {
      EXPECT_EQ(rule.Match(FileEvent(path)), level <= row.levels ? MatchResult::Matched : MatchResult::OutOfScope)
          << row.depth << " " << path;
      path += "/x";
    }
  }
}

TEST_F(FileRuleTest, WithoutADepthAFolderIsLookedAtAlone) {
  const fakes::LogCapture log;
  const FileRule rule = File(DirectoryRuleText().Without("recursiveDepth"));
  EXPECT_EQ(rule.Match(FileEvent("/etc")), MatchResult::Matched);
  fakes::FakeEvent event = FileEvent("/etc/passwd");
  event.id = 9;
  EXPECT_EQ(rule.Match(event), MatchResult::OutOfScope);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Recursive depth for rule:d1 not matching with rule for event:9"));
}

TEST_F(FileRuleTest, TheDepthOfTheTopCountsFromTheTop) {
  const FileRule rule = File(DirectoryRuleText().With("imagePath", R"("/")").With("recursiveDepth", R"("1")"));
  EXPECT_EQ(rule.Match(FileEvent("/etc")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(FileEvent("/etc/passwd")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(FileEvent("/etc/ssh/x")), MatchResult::OutOfScope);
}

TEST_F(FileRuleTest, AFileRuleKnowsNoDepth) {
  const FileRule rule = File(FileRuleText().With("imagePath", R"("/etc")"));
  EXPECT_EQ(rule.Match(FileEvent("/etc/a/b/c/d")), MatchResult::Matched);
}

TEST_F(FileRuleTest, ARenameIsMatchedByTheEndThatLiesWithinReach) {
  const FileRule rule = Etc("1");
  EXPECT_EQ(rule.Match(RenameEvent("/etc/a", "/tmp/a")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(RenameEvent("/tmp/a", "/etc/a")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(RenameEvent("/etc/x/y/a", "/etc/a")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(RenameEvent("/etc/x/y/a", "/tmp/a")), MatchResult::OutOfScope);
  EXPECT_EQ(rule.Match(RenameEvent("/tmp/a", "/srv/a")), MatchResult::OutOfScope);
  EXPECT_EQ(rule.Match(RenameEvent("/etcetera", "/x")), MatchResult::OutOfScope) << "another folder's beginning";
}

TEST_F(FileRuleTest, APathIsTakenWithoutDots) {
  EXPECT_EQ(Etc("1").Match(FileEvent("/etc/ssh/../passwd")), MatchResult::Matched);
  const FileRule odd = File(DirectoryRuleText().With("imagePath", R"("/etc/ssl/..")").With("recursiveDepth", R"("1")"));
  EXPECT_EQ(odd.Match(FileEvent("/etc/passwd")), MatchResult::Matched);
  EXPECT_EQ(odd.Match(FileEvent("/etc/ssl/x")), MatchResult::OutOfScope);
}

TEST_F(FileRuleTest, OnlyRegularFilesAndLinksAreReported) {
  const fakes::LogCapture log;
  fakes::FakeEvent event = FileEvent("/etc/passwd");
  event.file_type = edr::FileType::SymbolicLink;
  EXPECT_EQ(File(FileRuleText()).Match(event), MatchResult::Matched);
  event.file_type = edr::FileType::Unknown;
  EXPECT_EQ(File(FileRuleText()).Match(event), MatchResult::RefusedByFilter);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "File is not regular or symlink. Skipping file type: 6"));
}

TEST_F(FileRuleTest, AFileAboveTheLimitOrWithoutContentIsSkipped) {
  const fakes::LogCapture log;
  const FileRule rule = File(FileRuleText(), 3 * kMiB);
  fakes::FakeEvent event = FileEvent("/etc/passwd");
  event.size = 3 * kMiB;
  EXPECT_EQ(rule.Match(event), MatchResult::Matched);
  event.size = 3 * kMiB + 1;
  EXPECT_EQ(rule.Match(event), MatchResult::RefusedByFilter);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, " File size for /etc/passwd is more than max limit. Skipping it"));
  event.size = 0;
  EXPECT_EQ(rule.Match(event), MatchResult::RefusedByFilter);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Skipping the file with size 0B"));
  event.size = -1;
  EXPECT_EQ(rule.Match(event), MatchResult::Matched) << "nobody knows its size";
}

TEST_F(FileRuleTest, TheSizeOfARenamedFileIsToldByItsNewName) {
  const fakes::LogCapture log;
  fakes::FakeEvent event = RenameEvent("/tmp/x", "/etc/passwd/");
  event.size = 4 * kMiB;
  EXPECT_EQ(File(FileRuleText(), kMiB).Match(event), MatchResult::RefusedByFilter);
  EXPECT_TRUE(log.Has("File size for /etc/passwd is more"));
}

TEST_F(FileRuleTest, WithoutALimitNoSizeIsTooMuchOrTooLittle) {
  for (const std::int64_t size : {std::int64_t{0}, 1'000'000 * kMiB}) {
    fakes::FakeEvent event = FileEvent("/etc/passwd");
    event.size = size;
    EXPECT_EQ(File(FileRuleText()).Match(event), MatchResult::Matched) << size;
  }
}

TEST_F(FileRuleTest, ADeletePassesWithNoFilterAndNoSizeTest) {
  const FileRule rule = File(
      FileRuleText().With("exclusionFilters", R"([{"filterType":[]}])").With("fileTypeToInclude", R"(["elf"])"), kMiB);
  for (const std::int64_t size : {std::int64_t{0}, 100 * kMiB}) {
    fakes::FakeEvent event = FileEvent("/etc/passwd", EventType::Delete);
    event.size = size;
    EXPECT_EQ(rule.Match(event), MatchResult::Matched);
  }
  EXPECT_EQ(rule.Match(FileEvent("/etc/passwd")), MatchResult::RefusedByFilter);
}

TEST_F(FileRuleTest, FiltersNarrowARuleDown) {
  const FileRule rule = File(DirectoryRuleText()
                                 .With("inclusionFilters", R"([
      {"filterType":["objectType","patterns"],"objectType":"File","patterns":["*.conf"]},
      {"filterType":["objectType","actorProcess"],"objectType":"Directory","patterns":["/etc/ssh"],
       "actorProcess":["dash"]}])")
                                 .With("exclusionFilters", R"([
      {"filterType":["objectType","actorProcess"],"objectType":"File","patterns":["/etc/a.conf"],
       "actorProcess":["job.sh"]}])"));
  EXPECT_EQ(rule.Match(FileEvent("/etc/b.conf")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(FileEvent("/etc/ssh/key")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(FileEvent("/etc/passwd")), MatchResult::RefusedByFilter);
  EXPECT_EQ(rule.Match(FileEvent("/etc/a.conf")), MatchResult::RefusedByFilter);
  fakes::FakeEvent other = FileEvent("/etc/a.conf");
  other.pid = kCron;
  EXPECT_EQ(rule.Match(other), MatchResult::Matched);
  fakes::FakeEvent key = FileEvent("/etc/ssh/key");
  key.pid = kCron;
  EXPECT_EQ(rule.Match(key), MatchResult::RefusedByFilter);
}

TEST_F(FileRuleTest, ARenameOutOfAnExcludedPlaceIsReported) {
  const FileRule rule = File(DirectoryRuleText().With(
      "exclusionFilters", R"([{"filterType":["objectType"],"objectType":"File","patterns":["/etc/cache/*"]}])"));
  EXPECT_EQ(rule.Match(RenameEvent("/etc/cache/x", "/etc/passwd")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(RenameEvent("/etc/cache/x", "/etc/cache/y")), MatchResult::RefusedByFilter);
}

TEST_F(FileRuleTest, TypesAreLookedAtBehindExclusionsAndBeforeInclusions) {
  const FileRule rule =
      File(FileRuleText()
               .With("fileTypeToInclude", R"(["elf"])")
               .With("inclusionFilters", R"([{"filterType":["actorProcess"],"actorProcess":["cron"]}])"));
  fakes::FakeEvent event = FileEvent("/etc/passwd");
  event.pid = kCron;
  event.file_type_desc = "ASCII text";
  EXPECT_EQ(rule.Match(event), MatchResult::RefusedByFilter);
  event.file_type_desc = "ELF 64-bit";
  {
    const fakes::LogCapture log;
    EXPECT_EQ(rule.Match(event), MatchResult::Matched);
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "File type Inclusion criteria matched"));
  }
  event.pid = kShell;
  EXPECT_EQ(rule.Match(event), MatchResult::RefusedByFilter);
  event.pid = kCron;
  event.file_type_desc = "";
  const fakes::LogCapture log;
  EXPECT_EQ(rule.Match(event), MatchResult::Matched) << "what nobody can tell stops no event";
  EXPECT_TRUE(log.Has("Event ID 1: Cannot match FileType criteria: Missing file type information"));
}

TEST_F(FileRuleTest, ACopyWatchesAnotherPathInTheSameWay) {
  const FileRule original = File(
      DirectoryRuleText()
          .With("recursiveDepth", R"("1")")
          .With("exclusionFilters", R"([{"filterType":["objectType"],"objectType":"File","patterns":["*.swp"]}])"));
  const FileRule copy(original, "d1-1", "/srv/conf");
  EXPECT_EQ(copy.GetId(), "d1-1");
  EXPECT_EQ(copy.GetPath(), "/srv/conf");
  EXPECT_EQ(copy.GetFileActions(), original.GetFileActions());
  EXPECT_EQ(copy.GetDirectoryActions(), original.GetDirectoryActions());
  EXPECT_EQ(copy.Match(FileEvent("/srv/conf/x")), MatchResult::Matched);
  EXPECT_EQ(copy.Match(FileEvent("/srv/conf/a/x")), MatchResult::OutOfScope);
  EXPECT_EQ(copy.Match(FileEvent("/srv/conf/x.swp")), MatchResult::RefusedByFilter);
}

// Processes and connections

class ActorRuleTest : public RulesFixture {
 protected:
  ActorRuleTest() : program_(folder_.Write("program", std::string(2 * kMiB, 'x'))) {}

  fakes::TempFolder folder_;
  const std::string program_;  // two MiB
};

TEST_F(ActorRuleTest, AProcessRuleMatchesItsActions) {
  const fakes::LogCapture log;
  const ProcessRule rule = Process(ProcessRuleText().With("notify", R"({"process":["create"]})"));
  EXPECT_EQ(rule.Match(StartEvent("/bin/ls")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(StartEvent("/bin/ls", EventType::ProcessClone)), MatchResult::Matched);
  EXPECT_EQ(rule.Match(StartEvent("/bin/ls", EventType::ProcessExit)), MatchResult::OutOfScope);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Matching Process Rule"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Event action not found in process notify actions"));
}

TEST_F(ActorRuleTest, AProgramAboveTheLimitIsSkipped) {
  const fakes::LogCapture log;
  EXPECT_EQ(Process(ProcessRuleText(), 2 * kMiB).Match(StartEvent(program_)), MatchResult::Matched);
  EXPECT_EQ(Process(ProcessRuleText(), 2 * kMiB - 1).Match(StartEvent(program_)), MatchResult::RefusedByFilter);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, " File size for " + program_ + " is more than max limit."));
  const std::string missing = folder_ / "missing";
  EXPECT_EQ(Process(ProcessRuleText(), kMiB).Match(StartEvent(missing)), MatchResult::RefusedByFilter);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Failed to load file for finding file size: " + missing));
  EXPECT_EQ(Process(ProcessRuleText()).Match(StartEvent(missing)), MatchResult::Matched) << "nobody looks";
  fakes::FakeEvent unknown = StartEvent("");
  unknown.image.reset();
  EXPECT_EQ(Process(ProcessRuleText(), kMiB).Match(unknown), MatchResult::RefusedByFilter);
}

TEST_F(ActorRuleTest, ProcessFiltersLookAtTheProgramAndItsParent) {
  const ProcessRule rule =
      Process(ProcessRuleText()
                  .With("inclusionFilters", R"([{"filterType":["patterns"],"patterns":["ls","cat"]}])")
                  .With("exclusionFilters",
                        R"([{"filterType":["patterns","actorProcess"],"patterns":["cat"],"actorProcess":["dash"]}])"));
  EXPECT_EQ(rule.Match(StartEvent("/bin/ls")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(StartEvent("/bin/cat")), MatchResult::RefusedByFilter);
  EXPECT_EQ(rule.Match(StartEvent("/bin/id")), MatchResult::RefusedByFilter);
  fakes::FakeEvent of_cron = StartEvent("/bin/cat");
  of_cron.ppid = kCron;
  EXPECT_EQ(rule.Match(of_cron), MatchResult::Matched);
}

TEST_F(ActorRuleTest, ANetworkRuleMatchesItsActions) {
  const fakes::LogCapture log;
  const NetworkRule rule = Network(NetworkRuleText().With("notify", R"({"network":["establish"]})"));
  EXPECT_EQ(rule.Match(NetworkEvent("1.2.3.4", 80)), MatchResult::Matched);
  EXPECT_EQ(rule.Match(NetworkEvent("1.2.3.4", 80, EventType::Accept)), MatchResult::Matched);
  EXPECT_EQ(rule.Match(NetworkEvent("1.2.3.4", 80, EventType::Bind)), MatchResult::OutOfScope);
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Matching Network Rule"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Event action not found in network notify actions"));
}

TEST_F(ActorRuleTest, ClosingAloneMatchesNothing) {
  const NetworkRule rule = Network(NetworkRuleText().With("notify", R"({"network":["close"]})"));
  for (const EventType type : {EventType::Connect, EventType::Accept, EventType::Bind}) {
    EXPECT_EQ(rule.Match(NetworkEvent("1.2.3.4", 80, type)), MatchResult::OutOfScope);
  }
}

TEST_F(ActorRuleTest, AConnectionOfAProgramAboveTheLimitIsSkipped) {
  fakes::FakeEvent event = NetworkEvent("1.2.3.4", 80);
  event.image = common::ImageInfo(program_);
  EXPECT_EQ(Network(NetworkRuleText(), 2 * kMiB).Match(event), MatchResult::Matched);
  EXPECT_EQ(Network(NetworkRuleText(), kMiB).Match(event), MatchResult::RefusedByFilter);
}

TEST_F(ActorRuleTest, NetworkFiltersOfAGroupHoldTogether) {
  const NetworkRule rule = Network(NetworkRuleText()
                                       .With("inclusionFilters", R"([
      {"filterType":["remotePort","remoteIPAddress"],"remotePort":{"number":[80]},"remoteIPAddress":["10\\..*"]},
      {"filterType":["localPort"],"localPort":{"range":[{"min":1,"max":1023}]}}])")
                                       .With("exclusionFilters", R"([
      {"filterType":["actorProcess","remoteIPAddress"],"actorProcess":["cron"],"remoteIPAddress":["10\\.0\\.0\\.1"]},
      {"filterType":["patterns"],"patterns":["curl"]}])"));
  EXPECT_EQ(rule.Match(NetworkEvent("10.0.0.1", 80)), MatchResult::Matched);
  EXPECT_EQ(rule.Match(NetworkEvent("0.0.0.0", 22, EventType::Bind)), MatchResult::Matched);
  fakes::FakeEvent of_cron = NetworkEvent("10.0.0.1", 80);
  of_cron.pid = kCron;
  EXPECT_EQ(rule.Match(of_cron), MatchResult::RefusedByFilter);
  of_cron.network_address = "10.0.0.2";
  EXPECT_EQ(rule.Match(of_cron), MatchResult::Matched);
  fakes::FakeEvent of_curl = NetworkEvent("10.0.0.1", 80);
  of_curl.image = common::ImageInfo("/usr/bin/curl");
  EXPECT_EQ(rule.Match(of_curl), MatchResult::RefusedByFilter);
  // A bind is no matter of remote filters, a connect none of local ones: such a group lets it pass.
  EXPECT_EQ(rule.Match(NetworkEvent("0.0.0.0", 2222, EventType::Bind)), MatchResult::Matched);
  EXPECT_EQ(rule.Match(NetworkEvent("11.0.0.1", 81)), MatchResult::Matched);
}

// Trusted programs

class WhitelistGlobalRuleTest : public RulesFixture {
 protected:
  static fakes::FakeEvent EventOf(const std::string& image) {
    fakes::FakeEvent event = FileEvent("/etc/x");
    event.image = common::ImageInfo(image);
    return event;
  }
};

TEST_F(WhitelistGlobalRuleTest, PathObjectAndAncestorsHoldTogether) {
  const WhitelistGlobalRule rule = Whitelist(WhitelistRuleText());
  EXPECT_NE(rule.Match(EventOf("/usr/bin/apt")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(EventOf("/usr/bin/apt-get")), MatchResult::Matched) << "another program";
  fakes::FakeEvent network = NetworkEvent("1.2.3.4", 80);
  network.image = common::ImageInfo("/usr/bin/apt");
  EXPECT_EQ(rule.Match(network), MatchResult::Matched) << "applies to files and processes";
  fakes::FakeEvent of_init = EventOf("/usr/bin/apt");
  of_init.ppid = 1;
  EXPECT_EQ(rule.Match(of_init), MatchResult::Matched) << "not below cron";
}

TEST_F(WhitelistGlobalRuleTest, AFolderStandsForTheProgramsRightInIt) {
  const WhitelistGlobalRule rule = Whitelist(WhitelistRuleText().With("imagePath", R"("/usr/bin/")"));
  EXPECT_NE(rule.Match(EventOf("/usr/bin/apt")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(EventOf("/usr/bin/x/apt")), MatchResult::Matched);
  EXPECT_EQ(rule.Match(EventOf("/usr/binapt")), MatchResult::Matched);
}

TEST_F(WhitelistGlobalRuleTest, WithoutExclusionGroupsNothingIsTrusted) {
  EXPECT_EQ(Whitelist(WhitelistRuleText().Without("exclusionFilters")).Match(EventOf("/usr/bin/apt")),
            MatchResult::Matched);
  EXPECT_NE(
      Whitelist(WhitelistRuleText().With("exclusionFilters", R"([{"filterType":[]}])")).Match(EventOf("/usr/bin/apt")),
      MatchResult::Matched);
}

TEST_F(WhitelistGlobalRuleTest, AnEventWithoutAProgramIsNotTrusted) {
  fakes::FakeEvent event = EventOf("/usr/bin/apt");
  event.image.reset();
  EXPECT_EQ(Whitelist(WhitelistRuleText()).Match(event), MatchResult::Matched);
}

TEST_F(WhitelistGlobalRuleTest, EachObjectHasItsWord) {
  const std::vector<std::pair<std::string, edr::ObjectType>> words = {{"file", edr::ObjectType::File},
                                                                      {"directory", edr::ObjectType::Directory},
                                                                      {"process", edr::ObjectType::Process},
                                                                      {"network", edr::ObjectType::Network}};
  for (const auto& [word, type] : words) {
    const WhitelistGlobalRule rule = Whitelist(WhitelistRuleText().With("applyTo", "[\"" + word + "\"]"));
    for (const auto& [other_word, other_type] : words) {
      fakes::FakeEvent event = EventOf("/usr/bin/apt");
      event.object_type = other_type;
      EXPECT_EQ(rule.Match(event) != MatchResult::Matched, type == other_type) << word << " " << other_word;
    }
  }
}

}  // namespace
}  // namespace zagent::ioc::internal
