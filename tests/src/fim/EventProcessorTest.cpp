#include "src/fim/EventProcessor.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <stdexcept>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlStorageFactory.h"
#include "src/fim/BaselineEventSqlDataFormatter.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeHealthReporter.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/MemoryStorage.h"
#include "tests/fakes/TempFolder.h"
#include "tests/src/fim/Json.h"

namespace zagent::fim::internal {
namespace {

using edr::EventType;
using fakes::FakeEvent;

class EventProcessorTest : public testing::Test {
 protected:
  // Puts a directory rule on the folder of this test into the table.
  void AddRule(const std::string& id, const std::string& more = "", const std::string& depth = "all") {
    auto rule = std::make_shared<const EventRule>(
        Json(R"({"ruleId":")" + id + R"(","ruleType":"directory","imagePath":")" + folder_.Path() +
             R"(","recursiveDepth":")" + depth + R"(","notify":["create","delete","modifyContent","rename"])" + more +
             "}")
            .Value());
    rules_map_[id] = std::move(rule);
    rules_.Replace(rules_map_, collect_hashes_);
  }

  // An event on a file of this test's folder, as its audit records and a stat would describe it.
  FakeEvent Event(EventType type, const std::string& name) {
    FakeEvent event(type, "action", folder_ / name);
    struct stat stat {};
    if (lstat((folder_ / name).c_str(), &stat) == 0) event.file = common::ImageInfo(folder_ / name, stat);
    return event;
  }

  // The file has had its baseline in an earlier run.
  void HasBaseline(const std::string& name) { ASSERT_TRUE(baseline_.Begin(folder_ / name)); }
  // "<action> <name>" of every document, in order.
  std::vector<std::string> Stories() {
    std::vector<std::string> stories;
    for (const std::string& document : storage_.written) {
      const Json json(document);
      stories.push_back(json.At("eventAction") + " " + json.At("imagePath").substr(folder_.Path().size() + 1));
    }
    return stories;
  }

  // What the database says of the content of a file whose baseline is in it.
  std::string RememberedStatus(const std::string& name) {
    const auto storage = common::OpenSqlStorage(
        database_.Path(), Baseline::kFileName, [] { return std::make_unique<BaselineEventSqlDataFormatter>(); },
        nullptr, common::SqlStorage::Caching::Off);
    const common::Bytes row = storage->Read(BaselineEventSqlDataFormatter::kTable, folder_ / name);
    common::Serializer columns(row);
    EXPECT_EQ(columns.GetString(), folder_ / name);
    return columns.GetString();
  }

  // The only document that was written.
  Json Written() {
    EXPECT_EQ(storage_.written.size(), 1U);
    return Json(storage_.written.empty() ? "{}" : storage_.written.front());
  }

  fakes::TempFolder folder_;
  fakes::LogCapture log_;
  RuleTable::Rules rules_map_;
  bool collect_hashes_ = false;
  RuleTable rules_;
  fakes::MemoryStorage storage_;
  fakes::FakeHealthReporter reporter_;
  const health::ComponentHealth health_{reporter_, health::ComponentHealth::Kind::Fim};
  fakes::FakeClock clock_;
  fakes::TempFolder database_;
  Baseline baseline_{database_.Path(), clock_};
  common::util::DigestCache digests_{clock_};
  EventProcessor processor_{rules_, storage_, baseline_, digests_, health_, clock_};
};

TEST_F(EventProcessorTest, AnEventThatARuleTakesIsWritten) {
  AddRule("r1");
  processor_.PostProcess({"r1"}, Event(EventType::Delete, "file"));
  const Json json = Written();
  EXPECT_EQ(json.At("imagePath"), folder_ / "file");
  EXPECT_EQ(json.At("associatedRules"), R"(["r1"])");
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "[FIM]: Processing Event id: 1 path: " + (folder_ / "file")));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "[FIM]: Event json written to disc successfully"));
}

TEST_F(EventProcessorTest, OnlyTheRulesThatTakeTheEventAreReported) {
  AddRule("shallow", "", "none");
  AddRule("deep");
  AddRule("filtered", R"(,"exclusionFilters":[{"objectType":"file","patterns":["file"]}])");
  processor_.PostProcess({"shallow", "deep", "filtered"}, Event(EventType::Delete, "file"));
  EXPECT_EQ(Written().At("associatedRules"), R"(["deep"])");
  EXPECT_TRUE(log_.Has("Event id: 1 not matched with Rule id: shallow"));
  EXPECT_TRUE(log_.Has("Event id: 1 not matched with Rule id: filtered"));
}

TEST_F(EventProcessorTest, AnEventThatNoRuleTakesIsDropped) {
  AddRule("r1", "", "none");
  processor_.PostProcess({"r1"}, Event(EventType::Delete, "file"));
  EXPECT_TRUE(storage_.written.empty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG,
                       "Dropping Event as no rules criteria matched in post-process: " + (folder_ / "file")));
}

TEST_F(EventProcessorTest, ARuleThatIsGoneIsSkipped) {
  AddRule("r2");
  processor_.PostProcess({"gone", "r2"}, Event(EventType::Delete, "file"));
  EXPECT_EQ(Written().At("associatedRules"), R"(["r2"])");
  EXPECT_TRUE(log_.Has("NULL Rule for rule id: gone"));
}

TEST_F(EventProcessorTest, BothRulesOfALinkAreReportedOnce) {
  AddRule("r1");
  const auto link = std::make_shared<const EventRule>(*rules_map_["r1"], "r1-1", folder_.Path());
  rules_map_["r1-1"] = link;
  rules_.Replace(rules_map_, false);
  processor_.PostProcess({"r1", "r1-1"}, Event(EventType::Delete, "file"));
  EXPECT_EQ(Written().At("associatedRules"), R"(["r1"])");
}

TEST_F(EventProcessorTest, DigestsAreWrittenWhenAManifestAsksForThem) {
  collect_hashes_ = true;
  AddRule("r1");
  FakeEvent event = Event(EventType::Delete, "file");
  event.content_hash = {0x0F};
  processor_.PostProcess({"r1"}, event);
  EXPECT_EQ(Written().At("fileContentHash"), "0f");
}

TEST_F(EventProcessorTest, CreateAndWriteOnATrackingRuleCarryFreshContent) {
  AddRule("r1", R"(,"trackContentChange":true)");
  HasBaseline("file");
  folder_.Write("file", "new text");
  for (const EventType type : {EventType::Create, EventType::Write}) {
    storage_.written.clear();
    processor_.PostProcess({"r1"}, Event(type, "file"));
    const Json json = Written();
    EXPECT_EQ(json.At("fileContent"), "bmV3IHRleHQ=");
    EXPECT_EQ(json.At("contentStatus"), "READ_SUCCESSFUL");
  }
}

TEST_F(EventProcessorTest, OtherEventsAndOtherRulesCarryNoContent) {
  AddRule("tracking", R"(,"trackContentChange":true)");
  AddRule("plain");
  HasBaseline("file");
  folder_.Write("file", "text");
  processor_.PostProcess({"tracking"}, Event(EventType::Delete, "file"));
  processor_.PostProcess({"plain"}, Event(EventType::Write, "file"));
  FakeEvent folder_event = Event(EventType::Create, "file");
  folder_event.object_type = edr::ObjectType::Directory;
  processor_.PostProcess({"tracking"}, folder_event);
  ASSERT_EQ(storage_.written.size(), 3U);
  for (const std::string& document : storage_.written) EXPECT_EQ(Json(document).At("contentStatus"), "(none)");
}

TEST_F(EventProcessorTest, ATooLargeFileIsReportedWithoutContent) {
  AddRule("r1", R"(,"trackContentChange":true)");
  HasBaseline("file");
  folder_.Write("file", std::string(51'201, 'x'));
  processor_.PostProcess({"r1"}, Event(EventType::Write, "file"));
  const Json json = Written();
  EXPECT_EQ(json.At("contentStatus"), "MAX_SIZE_LIMIT_REACHED");
  EXPECT_EQ(json.At("fileContent"), "");
}

TEST_F(EventProcessorTest, ADocumentTooLargeForASpoolFileIsSentAgainWithoutContent) {
  AddRule("r1", R"(,"trackContentChange":true)");
  storage_.max_item_size = 2'000;
  folder_.Write("file", std::string(3'000, 'x'));
  folder_.Write("small", "text");
  processor_.PostProcess({"r1"}, Event(EventType::Write, "file"));
  ASSERT_EQ(Stories(), (std::vector<std::string>{"Baseline file", "action file"}));
  for (const std::string& document : storage_.written) {
    const Json json(document);
    EXPECT_EQ(json.At("contentStatus"), "MAX_SIZE_LIMIT_REACHED");
    EXPECT_EQ(json.At("fileContent"), "");
    EXPECT_EQ(json.At("imagePath"), folder_ / "file");
  }
  EXPECT_FALSE(log_.Has("Failed to write Event json to disc"));
  EXPECT_EQ(reporter_.Refused(), 0U);
  processor_.PostProcess({"r1"}, Event(EventType::Write, "small"));
  baseline_.KeepFiled();
  EXPECT_EQ(RememberedStatus("file"), "MAX_SIZE_LIMIT_REACHED") << "what the document says";
  EXPECT_EQ(RememberedStatus("small"), "READ_SUCCESSFUL");
}

TEST_F(EventProcessorTest, ADocumentThatNoSpoolFileTakesIsLogged) {
  AddRule("r1");
  storage_.max_item_size = 10;
  processor_.PostProcess({"r1"}, Event(EventType::Delete, "file"));
  EXPECT_TRUE(storage_.written.empty());
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[FIM]: Failed to write Event json to disc"));
  EXPECT_EQ(reporter_.Refused(), 1U);
}

TEST_F(EventProcessorTest, AFailedWriteIsLoggedByItsCallback) {
  AddRule("r1");
  storage_.write_code = common::StorageCode::IOError;
  processor_.PostProcess({"r1"}, Event(EventType::Delete, "file"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, "[FIM]: Failed to write Event json to disc"));
  EXPECT_FALSE(log_.Has("Event json written to disc successfully"));
  EXPECT_EQ(reporter_.Refused(), 1U);
}

TEST_F(EventProcessorTest, ASpoolThatRefusesEverythingIsToldOnceAMinute) {
  AddRule("r1");
  storage_.write_code = common::StorageCode::IOError;
  for (int i = 0; i < 3; ++i) processor_.PostProcess({"r1"}, Event(EventType::Delete, "file"));
  storage_.max_item_size = 10;
  for (int i = 0; i < 3; ++i) processor_.PostProcess({"r1"}, Event(EventType::Delete, "file"));
  EXPECT_EQ(log_.Count("Failed to write Event json to disc"), 1);
  EXPECT_EQ(reporter_.Refused(), 6U);
  clock_.Advance(common::util::LinePace::kInterval);
  processor_.PostProcess({"r1"}, Event(EventType::Delete, "file"));
  EXPECT_EQ(log_.Count("Failed to write Event json to disc: "), 1);
  EXPECT_TRUE(log_.Has(" (6 times since the last line)"));
}

TEST_F(EventProcessorTest, AFlushThatFailsIsNoLossOfTheEventThatMetIt) {
  AddRule("r1");
  storage_.write_code = common::StorageCode::IOError;
  storage_.only_flush_fails = true;
  processor_.PostProcess({"r1"}, Event(EventType::Delete, "file"));
  EXPECT_EQ(storage_.written.size(), 1U);
  EXPECT_EQ(reporter_.Refused(), 0U);
  EXPECT_FALSE(log_.Has("Failed to write Event json to disc"));
  EXPECT_FALSE(log_.Has("Event json written to disc successfully"));
}

constexpr const char* kTracking = R"(,"trackContentChange":true)";

TEST_F(EventProcessorTest, TheFirstSightOfATrackedFileBringsItsBaselineAndTheSecondDoesNot) {
  AddRule("r1", kTracking);
  folder_.Write("file", "text");
  processor_.PostProcess({"r1"}, Event(EventType::Write, "file"));
  processor_.PostProcess({"r1"}, Event(EventType::Write, "file"));
  EXPECT_EQ(Stories(), (std::vector<std::string>{"Baseline file", "action file", "action file"}));
  const Json baseline(storage_.written.front());
  EXPECT_EQ(baseline.Keys(),
            "successStatus,timestamp,eventId,eventAction,eventClass,eventType,imagePath,associatedRules,fileContent,"
            "contentStatus");
  EXPECT_EQ(baseline.At("timestamp"), "2023-11-14T22:13:20Z");
  EXPECT_EQ(baseline.At("eventId"), "1");
  EXPECT_EQ(baseline.At("eventType"), "File");
  EXPECT_EQ(baseline.At("associatedRules"), R"(["r1"])");
  EXPECT_EQ(baseline.At("fileContent"), "dGV4dA==");
  EXPECT_EQ(baseline.At("contentStatus"), "READ_SUCCESSFUL");
}

TEST_F(EventProcessorTest, ABaselinesDigestIsThatOfTheFileItself) {
  collect_hashes_ = true;
  AddRule("r1", kTracking);
  folder_.Write("file", "hi\n");
  processor_.PostProcess({"r1"}, Event(EventType::Write, "file"));
  ASSERT_EQ(storage_.written.size(), 2U);
  EXPECT_EQ(Json(storage_.written[0]).At("fileContentHash"),
            "98ea6e4f216f2fb4b69fff9b3a44842c38686ca685f3f55dc48c5d3fb1107be4");
  EXPECT_TRUE(log_.Has("PATH: " + (folder_ / "file") + " SHA256: 98ea6e4f216f2fb4b69fff9b3a44842c38686ca6"));
}

// Larger than what is read for every event.
constexpr std::size_t kLarge = 2 * 1024 * 1024;

TEST_F(EventProcessorTest, ALargeFileThatIsWrittenAllTheTimeHasADigestTwiceAMinute) {
  collect_hashes_ = true;
  AddRule("r1");
  int digests = 0;
  for (int second = 0; second < 60; ++second) {
    folder_.Write("file", std::string(kLarge, static_cast<char>('a' + second % 26)));
    FakeEvent event = Event(EventType::Write, "file");
    event.content_hash = {0x0F};
    storage_.written.clear();
    processor_.PostProcess({"r1"}, event);
    digests += Written().At("fileContentHash") == "0f" ? 1 : 0;
    clock_.Advance(std::chrono::seconds(1));
  }
  EXPECT_EQ(digests, 2);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_WARNING, "[FIM]: DigestPace: 1 events without a digest: "));
}

TEST_F(EventProcessorTest, ABaselineReadsTheFileForItsEventToo) {
  clock_.SetWall(std::chrono::system_clock::now() + std::chrono::minutes(1) - clock_.Now());  // the file has settled
  collect_hashes_ = true;
  AddRule("r1", kTracking);
  folder_.Write("file", std::string(kLarge, 'x'));
  FakeEvent event = Event(EventType::Write, "file");
  event.content_hash = {0x0F};
  processor_.PostProcess({"r1"}, event);
  ASSERT_EQ(storage_.written.size(), 2U);
  EXPECT_EQ(Json(storage_.written[0]).At("fileContentHash").size(), 64U);
  EXPECT_EQ(Json(storage_.written[1]).At("fileContentHash"), "0f") << "known as it is: there is nothing to read";
  struct stat stat {};
  ASSERT_EQ(lstat((folder_ / "file").c_str(), &stat), 0);
  const common::util::FileDigests known = digests_.Find(stat);
  EXPECT_EQ(known.md5.size(), 16U) << "an event wants all of them";
  EXPECT_EQ(known.sha1.size(), 20U);
  EXPECT_EQ(known.sha256.size(), 32U);
}

TEST_F(EventProcessorTest, ARenamedFileKeepsThePaceWhereItIsNow) {
  collect_hashes_ = true;
  AddRule("r1");
  folder_.Write("new", std::string(kLarge, 'x'));
  FakeEvent event = Event(EventType::Rename, "old");
  event.new_file = common::ImageInfo(folder_ / "new");
  event.content_hash = {0x0F};
  processor_.PostProcess({"r1"}, event);
  processor_.PostProcess({"r1"}, event);
  ASSERT_EQ(storage_.written.size(), 2U);
  EXPECT_EQ(Json(storage_.written[0]).At("fileContentHash"), "0f");
  EXPECT_EQ(Json(storage_.written[1]).At("fileContentHash"), "(none)");
}

TEST_F(EventProcessorTest, ARenameBringsABaselineForEachEnd) {
  AddRule("r1", kTracking);
  folder_.Write("new", "text");
  FakeEvent event = Event(EventType::Rename, "old");
  event.new_file = common::ImageInfo(folder_ / "new");
  processor_.PostProcess({"r1"}, event);
  EXPECT_EQ(Stories(), (std::vector<std::string>{"Baseline old", "Baseline new", "action old"}));
  EXPECT_EQ(Json(storage_.written[0]).At("contentStatus"), "READ_FAILURE");
  EXPECT_EQ(Json(storage_.written[1]).At("fileContent"), "dGV4dA==");
  processor_.PostProcess({"r1"}, event);
  EXPECT_EQ(storage_.written.size(), 4U);
}

TEST_F(EventProcessorTest, ADeletedFileHasItsBaselineWithLessInIt) {
  collect_hashes_ = true;
  AddRule("r1", kTracking);
  processor_.PostProcess({"r1"}, Event(EventType::Delete, "gone"));
  EXPECT_EQ(Stories(), (std::vector<std::string>{"Baseline gone", "action gone"}));
  const Json baseline(storage_.written.front());
  EXPECT_EQ(baseline.At("contentStatus"), "READ_FAILURE");
  EXPECT_EQ(baseline.At("fileContentHash"), "(none)");
}

TEST_F(EventProcessorTest, ABaselineHoldsTheLargestFileAndNothingLarger) {
  AddRule("r1", kTracking);
  folder_.Write("largest", std::string(51'200, 'x'));
  folder_.Write("too_large", std::string(51'201, 'x'));
  processor_.PostProcess({"r1"}, Event(EventType::Rename, "largest"));
  processor_.PostProcess({"r1"}, Event(EventType::Delete, "too_large"));
  ASSERT_EQ(storage_.written.size(), 4U);
  const Json largest(storage_.written[0]);
  EXPECT_EQ(largest.At("contentStatus"), "READ_SUCCESSFUL");
  EXPECT_EQ(largest.At("fileContent").size(), 68'268U);
  const Json too_large(storage_.written[2]);
  EXPECT_EQ(too_large.At("contentStatus"), "MAX_SIZE_LIMIT_REACHED");
  EXPECT_EQ(too_large.At("fileContent"), "");
}

TEST_F(EventProcessorTest, OnlyFilesOnMatchingTrackingRulesHaveABaseline) {
  AddRule("tracking", kTracking, "none");
  AddRule("plain");
  folder_.Write("file", "text");
  processor_.PostProcess({"tracking", "plain"}, Event(EventType::Write, "file"));
  FakeEvent folder_event = Event(EventType::Create, "file");
  folder_event.object_type = edr::ObjectType::Directory;
  folder_event.file->SetPath(folder_.Path());
  processor_.PostProcess({"tracking"}, folder_event);
  ASSERT_EQ(storage_.written.size(), 2U);
  for (const std::string& document : storage_.written) EXPECT_EQ(Json(document).At("eventAction"), "action");
  EXPECT_EQ(baseline_.GetSize(), 0U);
}

TEST_F(EventProcessorTest, OfTwoTrackingRulesTheFirstIsNamed) {
  AddRule("plain");
  AddRule("first", kTracking);
  AddRule("second", kTracking);
  folder_.Write("file", "text");
  processor_.PostProcess({"plain", "first", "second"}, Event(EventType::Write, "file"));
  ASSERT_EQ(storage_.written.size(), 2U);
  EXPECT_EQ(Json(storage_.written[0]).At("associatedRules"), R"(["first"])");
  EXPECT_EQ(Json(storage_.written[1]).At("associatedRules"), R"(["plain","first","second"])");
}

TEST_F(EventProcessorTest, ARequestForABaselineGivesNothingElse) {
  AddRule("r1", kTracking);
  folder_.Write("file", "text");
  processor_.PostProcess({"gone", "r1"}, Event(EventType::Baseline, "file"));
  processor_.PostProcess({"r1"}, Event(EventType::Baseline, "file"));
  EXPECT_EQ(Stories(), std::vector<std::string>{"Baseline file"});
  EXPECT_TRUE(log_.Has("NULL Rule for rule id: gone"));
  EXPECT_FALSE(log_.Has("Processing Event id: "));
}

TEST_F(EventProcessorTest, ABaselineThatTheSpoolRefusesIsTakenWithTheNextEvent) {
  AddRule("r1", kTracking);
  folder_.Write("file", "text");
  storage_.max_item_size = 10;
  processor_.PostProcess({"r1"}, Event(EventType::Delete, "file"));
  EXPECT_EQ(baseline_.GetSize(), 0U);
  storage_.max_item_size = 100'000;
  processor_.PostProcess({"r1"}, Event(EventType::Delete, "file"));
  EXPECT_EQ(Stories(), (std::vector<std::string>{"Baseline file", "action file"}));
}

TEST_F(EventProcessorTest, ABaselineThatTheSpoolCouldNotWriteIsTakenWithTheNextEvent) {
  AddRule("r1", kTracking);
  folder_.Write("file", "text");
  storage_.write_code = common::StorageCode::IOError;
  processor_.PostProcess({"r1"}, Event(EventType::Delete, "file"));
  EXPECT_TRUE(storage_.written.empty());
  EXPECT_EQ(baseline_.GetSize(), 0U);
  storage_.write_code = common::StorageCode::Success;
  processor_.PostProcess({"r1"}, Event(EventType::Delete, "file"));
  EXPECT_EQ(Stories(), (std::vector<std::string>{"Baseline file", "action file"}));
}

TEST_F(EventProcessorTest, ABaselineThatAnythingElseKeptFromTheSpoolIsTakenWithTheNextEvent) {
  AddRule("r1", kTracking);
  folder_.Write("file", "text");
  storage_.error = "no memory";
  EXPECT_THROW(processor_.PostProcess({"r1"}, Event(EventType::Delete, "file")), std::runtime_error);
  EXPECT_EQ(baseline_.GetSize(), 0U);
  storage_.error.clear();
  processor_.PostProcess({"r1"}, Event(EventType::Delete, "file"));
  EXPECT_EQ(Stories(), (std::vector<std::string>{"Baseline file", "action file"}));
}

TEST_F(EventProcessorTest, ABaselineBehindAFailedFlushIsInTheSpoolAllTheSame) {
  AddRule("r1", kTracking);
  folder_.Write("file", "text");
  storage_.write_code = common::StorageCode::IOError;
  storage_.only_flush_fails = true;
  processor_.PostProcess({"r1"}, Event(EventType::Delete, "file"));
  processor_.PostProcess({"r1"}, Event(EventType::Delete, "file"));
  EXPECT_EQ(Stories(), (std::vector<std::string>{"Baseline file", "action file", "action file"}));
}

TEST_F(EventProcessorTest, ABaselineIsRememberedOnceTheSpoolHasFiledIt) {
  AddRule("r1", kTracking);
  folder_.Write("file", "text");
  processor_.PostProcess({"r1"}, Event(EventType::Write, "file"));
  const auto known_on_disk = [this] { return Baseline(database_.Path(), clock_).GetSize(); };
  EXPECT_EQ(known_on_disk(), 0U);
  baseline_.KeepFiled();
  EXPECT_EQ(known_on_disk(), 1U);
}

TEST_F(EventProcessorTest, ItsEndIsLogged) {
  { const EventProcessor processor(rules_, storage_, baseline_, digests_, health_); }
  EXPECT_TRUE(log_.Has("[FIM]: Destroying EventProcessor"));
}

}  // namespace
}  // namespace zagent::fim::internal
