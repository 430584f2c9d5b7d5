#include "src/fim/Component.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <optional>
#include <system_error>

#include "common/src/util/Log.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeHealthReporter.h"
#include "tests/fakes/FakeRuleEngine.h"
#include "tests/fakes/FakeUploader.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"
#include "tests/src/fim/TestConfig.h"

namespace zagent::fim {
namespace {

using Installed = std::map<std::string, std::string>;

class ComponentTest : public testing::Test {
 protected:
  ComponentTest() {
    section_.manifests = {WriteManifest("manifest.json", "r1")};
    scheduler_.Start();
  }

  std::string WriteManifest(const std::string& name, const std::string& rule_id) {
    return folder_.Write(name, R"({"data":{"fim":{"policyVersion":"1.0","collectHashes":false,"rules":[{"ruleId":")" +
                                   rule_id +
                                   R"(","ruleType":"directory","imagePath":"/srv/watched","recursiveDepth":"all",)" +
                                   R"("notify":["create","modifyContent"]}]}}})");
  }

  void Make() {
    auto uploader = std::make_unique<fakes::FakeUploader>();
    uploader_ = uploader.get();
    if (hold_uploads_) uploader_->Hold();
    component_ = Build(MakeConfig(section_), std::move(uploader));
  }

  std::unique_ptr<Component> Build(std::unique_ptr<Config> config, std::unique_ptr<common::Uploader> uploader) {
    return std::make_unique<Component>(clock_.Now(), std::move(config), nullptr, scheduler_, std::move(uploader),
                                       engine_, 100, 50, nullptr, reporter_, folder_.Path(), nullptr, clock_);
  }

  // A manifest whose rule tracks content; nothing is uploaded.
  void TrackContent() {
    section_.manifests = {folder_.Write(
        "tracking.json",
        R"({"data":{"fim":{"policyVersion":"1.0","collectHashes":false,"rules":[{"ruleId":"r1","ruleType":"directory",)"
        R"("imagePath":"/srv/watched","recursiveDepth":"all","notify":["create"],"trackContentChange":true}]}}})")};
    section_.upload_interval = 0;
  }
  // Files whose baseline the database in a working folder knows; nothing while the database is at work, whose files
  // come and go under the copy.
  [[nodiscard]] std::optional<std::size_t> KnownBaselines(const std::string& working_folder) {
    const std::string copy = folder_ / "look";
    std::filesystem::remove_all(copy);
    std::error_code error;
    std::filesystem::copy(working_folder, copy, std::filesystem::copy_options::recursive, error);
    if (error) return std::nullopt;
    return internal::Baseline(copy, clock_).GetSize();
  }

  void Update() { component_->UpdateConfig(Json(section_.Text()).Value()); }

  void Deliver(const std::string& path) {
    engine_.Deliver("FIM", {"r1"}, fakes::FakeEvent(edr::EventType::Create, "Create", path));
  }

  // A file that an earlier run has left in the spool.
  void LeaveInSpool(const std::string& name, const std::string& text) {
    std::filesystem::create_directories(folder_ / "fim/events");
    folder_.Write("fim/events/" + name, text);
  }
  [[nodiscard]] std::vector<std::string> SpoolFiles() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_ / "fim/events")) {
      names.push_back(entry.path().filename());
    }
    return names;
  }

  // Lets time pass until `holds` does; false when it never did.
  [[nodiscard]] bool PassTimeUntil(const std::function<bool()>& holds) {
    return fakes::Eventually([&] {
      if (holds()) return true;
      clock_.Advance(std::chrono::seconds(60));
      return false;
    });
  }
  [[nodiscard]] bool PassTimeUntilUploads(std::size_t count) {
    return PassTimeUntil([&] { return uploader_->Uploads().size() >= count; });
  }

  [[nodiscard]] static std::string ErrorOf(const std::function<void()>& call) {
    try {
      call();
      return "";
    } catch (const std::exception& error) {
      return error.what();
    }
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  fakes::FakeClock clock_;
  TestSection section_;
  fakes::FakeRuleEngine engine_;
  fakes::FakeHealthReporter reporter_;
  common::Scheduler scheduler_{clock_};
  bool hold_uploads_ = false;
  fakes::FakeUploader* uploader_ = nullptr;
  std::unique_ptr<Component> component_;
};

TEST_F(ComponentTest, ConfigurationAndUploaderAreNeeded) {
  EXPECT_EQ(ErrorOf([&] { Build(nullptr, std::make_unique<fakes::FakeUploader>()); }),
            "FimComponent: 'config' cannot be null");
  EXPECT_EQ(ErrorOf([&] { Build(MakeConfig(section_), nullptr); }), "FimComponent: 'uploader' cannot be null");
}

TEST_F(ComponentTest, ARelativeEventPathIsMadeUnderTheWorkingFolderForItsOwnerOnly) {
  section_.event_file_path = "deep/events/";
  Make();
  struct stat stat {};
  ASSERT_EQ(::stat((folder_ / "fim/deep/events").c_str(), &stat), 0);
  EXPECT_EQ(stat.st_mode & 07777U, 0700U);
  EXPECT_TRUE(log_.Has("[FIM]: Component initialized."));
}

TEST_F(ComponentTest, AnAbsoluteEventPathIsTakenAsItIs) {
  section_.event_file_path = folder_ / "elsewhere";
  Make();
  EXPECT_TRUE(std::filesystem::is_directory(folder_ / "elsewhere"));
  EXPECT_FALSE(std::filesystem::exists(folder_ / "fim/events"));
}

TEST_F(ComponentTest, AFolderThatCannotBeMadeLeavesNothingBehind) {
  section_.event_file_path = folder_.Write("file", "") + "/events";
  EXPECT_NE(ErrorOf([&] { Make(); }).find("FimComponent: Failed to create"), std::string::npos);
  EXPECT_TRUE(engine_.Calls().empty());
}

TEST_F(ComponentTest, AnEngineWithoutAKernelDoesNotKeepTheComponentFromStarting) {
  engine_.FailAdds("Failed to open audit socket");
  Make();
  EXPECT_TRUE(log_.Has("[FIM]: Component initialized."));
}

TEST_F(ComponentTest, AnEventTravelsFromTheEngineToThePlatform) {
  Make();
  EXPECT_EQ(engine_.Installed("FIM"), (Installed{{"r1", "/srv/watched"}}));
  Deliver("/srv/watched/file");
  Deliver("/srv/watched/other");
  ASSERT_TRUE(PassTimeUntilUploads(1));
  const Json upload(uploader_->Uploads()[0].payload);
  EXPECT_EQ(upload.Keys(), "events,timestamp");
  EXPECT_EQ(upload.At("events", 0, "imagePath"), "/srv/watched/file");
  EXPECT_EQ(upload.At("events", 1, "imagePath"), "/srv/watched/other");
  EXPECT_EQ(uploader_->Uploads()[0].url, "https://platform.example/fim/events");
  ASSERT_TRUE(PassTimeUntil([&] { return log_.Has("Deleted file: "); }));
  EXPECT_TRUE(SpoolFiles().empty());
}

TEST_F(ComponentTest, WhatAnEarlierRunLeftIsUploadedAtOnceAndWhatIsCorruptGoes) {
  LeaveInSpool("fim.0003", R"({"events":[{"a":1)");
  LeaveInSpool("fim.0004", R"({"events":[{"eventId":7}]})");
  Make();
  uploader_->AwaitUploads(1);  // no time passes
  EXPECT_EQ(Json(uploader_->Uploads()[0].payload).At("events", 0, "eventId"), "7");
  EXPECT_TRUE(log_.Has("UploadSchedule: Deleting corrupt file: " + (folder_ / "fim/events/fim.0003")));
}

TEST_F(ComponentTest, AFileThatTheSpoolRemovesForWantOfRoomIsCounted) {
  section_.max_disk_size_mb = 1;
  section_.upload_interval = 0;
  LeaveInSpool("fim.0001", std::string(700 * 1024, 'x'));
  LeaveInSpool("fim.0002", std::string(400 * 1024, 'x'));
  Make();
  Deliver("/srv/watched/file");
  component_.reset();
  EXPECT_EQ(SpoolFiles().size(), 2U);
  EXPECT_EQ(reporter_.RemovedFiles(), std::vector<std::uint64_t>{700 * 1024});
}

TEST_F(ComponentTest, AnOrderlyStopKeepsTheCacheOnDiskAndTakesTheRulesAway) {
  Make();
  Deliver("/srv/watched/file");
  component_.reset();
  ASSERT_EQ(SpoolFiles(), std::vector<std::string>{"fim.0001"});
  EXPECT_EQ(Json(folder_.Read("fim/events/fim.0001")).At("events", 0, "imagePath"), "/srv/watched/file");
  EXPECT_TRUE(engine_.Installed("FIM").empty());
  Deliver("/srv/watched/late");  // nobody listens any more
  EXPECT_TRUE(log_.Has("[FIM]: Component destroyed."));
}

TEST_F(ComponentTest, ABaselineThatAKillTakesFromTheCacheIsTakenAgain) {
  TrackContent();
  Make();
  Deliver("/srv/watched/file");
  // What a kill leaves at this moment, and once the cache has become a file.
  std::filesystem::create_directory(folder_ / "cached");
  std::filesystem::copy(folder_ / "fim", folder_ / "cached/fim", std::filesystem::copy_options::recursive);
  ASSERT_TRUE(PassTimeUntil([&] { return !SpoolFiles().empty(); }));
  ASSERT_TRUE(PassTimeUntil([&] { return KnownBaselines(folder_ / "fim") == 1; }));
  EXPECT_EQ(KnownBaselines(folder_ / "cached/fim"), std::size_t{0});
}

TEST_F(ComponentTest, AFileHasOneBaselineOverARestart) {
  TrackContent();
  for (int start = 0; start < 2; ++start) {
    Make();
    Deliver("/srv/watched/file");
    component_.reset();
  }
  ASSERT_EQ(SpoolFiles().size(), 2U);
  const Json first(folder_.Read("fim/events/fim.0001"));
  EXPECT_EQ(first.At("events", 0, "eventAction"), "Baseline");
  EXPECT_EQ(first.At("events", 1, "eventAction"), "Create");
  const Json second(folder_.Read("fim/events/fim.0002"));
  EXPECT_EQ(second.At("events", 0, "eventAction"), "Create");
  EXPECT_EQ(second.At("events", 1, "eventAction"), "(none)");
}

TEST_F(ComponentTest, ABaselineThatIsClearedOutOfTheCacheIsTakenAgain) {
  TrackContent();
  Make();
  Deliver("/srv/watched/file");
  const std::vector<std::string> manifests = section_.manifests;
  section_.manifests.clear();
  Update();
  // Without time that passes, in which the cache would become a file.
  ASSERT_TRUE(fakes::Eventually([&] { return log_.Has("[FIM]: Successfully cleared spool storage"); }));
  section_.manifests = manifests;
  Update();
  Deliver("/srv/watched/file");
  component_.reset();
  ASSERT_EQ(SpoolFiles().size(), 1U);
  EXPECT_EQ(Json(folder_.Read("fim/events/fim.0001")).At("events", 0, "eventAction"), "Baseline");
}

TEST_F(ComponentTest, ABaselineThatIsClearedWithTheSpoolsFilesIsTakenAgain) {
  TrackContent();
  Make();
  Deliver("/srv/watched/file");
  ASSERT_TRUE(PassTimeUntil([&] { return !SpoolFiles().empty(); }));
  const std::vector<std::string> manifests = section_.manifests;
  section_.manifests.clear();
  Update();
  ASSERT_TRUE(PassTimeUntil([&] { return log_.Has("[FIM]: Successfully cleared spool storage"); }));
  ASSERT_TRUE(SpoolFiles().empty());
  section_.manifests = manifests;
  Update();
  Deliver("/srv/watched/file");
  component_.reset();
  ASSERT_EQ(SpoolFiles().size(), 1U);
  EXPECT_EQ(Json(folder_.Read("fim/events/fim.0001")).At("events", 0, "eventAction"), "Baseline");
}

TEST_F(ComponentTest, ABaselineThatWasSentBeforeTheSpoolIsClearedIsNotTakenAgain) {
  TrackContent();
  section_.upload_interval = 30;
  Make();
  Deliver("/srv/watched/file");
  ASSERT_TRUE(PassTimeUntilUploads(1));
  ASSERT_TRUE(PassTimeUntil([&] { return SpoolFiles().empty(); }));
  const std::vector<std::string> manifests = section_.manifests;
  section_.manifests.clear();
  Update();
  ASSERT_TRUE(PassTimeUntil([&] { return log_.Has("[FIM]: Successfully cleared spool storage"); }));
  section_.manifests = manifests;
  Update();
  Deliver("/srv/watched/file");
  component_.reset();
  ASSERT_EQ(SpoolFiles().size(), 1U);
  EXPECT_EQ(Json(folder_.Read("fim/events/fim.0001")).At("events", 0, "eventAction"), "Create");
}

TEST_F(ComponentTest, AStopEndsAnUploadInFlightAndKeepsItsFile) {
  LeaveInSpool("fim.0001", R"({"events":[]})");
  hold_uploads_ = true;
  Make();
  uploader_->AwaitUploads(1);
  component_.reset();
  EXPECT_EQ(SpoolFiles(), std::vector<std::string>{"fim.0001"});
}

TEST_F(ComponentTest, AStopGoesFromWhereEventsComeFromToWhereTheyLie) {
  LeaveInSpool("fim.0001", R"({"events":[]})");
  hold_uploads_ = true;
  Make();
  uploader_->AwaitUploads(1);
  Deliver("/srv/watched/file");
  engine_.BeforeNextAdd([] { ZLOG_INFO("the rules go"); });
  component_.reset();
  const std::vector<std::string> steps = {
      "EventRuleEngine::UnregisterEventHandlers: Removing event handlers for 'FIM'",
      "UploadSchedule: Failed to upload data.",  // the upload in flight ends with its schedule
      "the rules go",
      "Destroying EventProcessor",
      "Destroying SpoolStorage for ",
      "Component destroyed.",
  };
  std::vector<std::string> seen;
  for (const Poco::Message& line : log_.Lines()) {
    for (const std::string& step : steps) {
      if (line.getText().find(step) != std::string::npos) seen.push_back(step);
    }
  }
  EXPECT_EQ(seen, steps) << log_.All();
  EXPECT_EQ(SpoolFiles().size(), 2U) << "the event that came before is on disk";
}

TEST_F(ComponentTest, AnUnchangedSectionChangesNothing) {
  Make();
  const std::size_t calls = engine_.Calls().size();
  Update();
  EXPECT_EQ(engine_.Calls().size(), calls);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_DEBUG, "[FIM]: Component::UpdateConfig: Configuration is unchanged"));
  EXPECT_FALSE(log_.Has("Component::UpdateConfig: Configuration updated"));
}

TEST_F(ComponentTest, AMalformedSectionChangesNothing) {
  Make();
  const std::size_t calls = engine_.Calls().size();
  EXPECT_THROW(component_->UpdateConfig(Json(R"({"manifests":[]})").Value()), std::invalid_argument);
  EXPECT_EQ(engine_.Calls().size(), calls);
  EXPECT_EQ(engine_.Installed("FIM").size(), 1U);
  EXPECT_FALSE(log_.Has("Disabling FIM"));
}

TEST_F(ComponentTest, ANewIntervalTakesEffectAtTheNextSchedule) {
  section_.upload_interval = 0;
  LeaveInSpool("fim.0001", R"({"events":[]})");
  Make();
  EXPECT_TRUE(uploader_->Uploads().empty());
  section_.upload_interval = 30;
  Update();
  uploader_->AwaitUploads(1);  // no time passes: the first run is due at once
  EXPECT_TRUE(log_.Has("[FIM]: Component::UpdateConfig: Configuration updated"));
}

TEST_F(ComponentTest, ANewServiceUrlIsWhereTheNextUploadGoes) {
  Make();
  section_.service_url = "https://elsewhere.example/fim";
  Update();
  Deliver("/srv/watched/file");
  ASSERT_TRUE(PassTimeUntilUploads(1));
  EXPECT_EQ(uploader_->Uploads()[0].url, "https://elsewhere.example/fim");
}

TEST_F(ComponentTest, NewLimitsOfTheSpoolHoldFromTheUpdateOn) {
  section_.upload_interval = 0;
  Make();
  section_.max_file_age_sec = 5;
  Update();
  Deliver("/srv/watched/file");
  ASSERT_TRUE(fakes::Eventually([&] { return log_.Has("Event json written to disc successfully"); }));
  clock_.Advance(std::chrono::seconds(60));  // a tenth of the age that was in force before
  EXPECT_TRUE(fakes::Eventually([&] { return !SpoolFiles().empty(); }));
}

TEST_F(ComponentTest, NewManifestsReplaceTheRules) {
  Make();
  section_.manifests = {WriteManifest("new.json", "r2")};
  Update();
  EXPECT_EQ(engine_.Installed("FIM"), (Installed{{"r2", "/srv/watched"}}));
}

TEST_F(ComponentTest, AnUpdateWithoutManifestsDisablesAndClearsTheSpool) {
  section_.upload_interval = 0;
  LeaveInSpool("fim.0001", R"({"events":[]})");
  Make();
  section_.manifests.clear();
  Update();
  EXPECT_TRUE(log_.Has("[FIM]: Disabling FIM"));
  EXPECT_TRUE(engine_.Installed("FIM").empty());
  ASSERT_TRUE(PassTimeUntil([&] { return log_.Has("[FIM]: Successfully cleared spool storage"); }));
  EXPECT_TRUE(SpoolFiles().empty());
}

TEST_F(ComponentTest, MonitoringCanBeSwitchedOffAndOnAgain) {
  section_.upload_interval = 0;
  Make();
  const std::vector<std::string> manifests = section_.manifests;
  for (int round = 1; round <= 2; ++round) {
    section_.manifests.clear();
    Update();
    ASSERT_TRUE(PassTimeUntil([&] { return log_.Count("Successfully cleared spool storage") == round; }));
    section_.manifests = manifests;
    Update();
    EXPECT_EQ(engine_.Installed("FIM"), (Installed{{"r1", "/srv/watched"}}));
  }
  EXPECT_EQ(log_.Count("Disabling FIM"), 2);
}

TEST_F(ComponentTest, WithoutManifestsFromTheStartNothingIsCleared) {
  section_.manifests.clear();
  section_.upload_interval = 0;
  LeaveInSpool("fim.0001", R"({"events":[]})");
  Make();
  section_.max_file_age_sec = 30;
  Update();
  component_.reset();
  EXPECT_FALSE(log_.Has("Disabling FIM"));
  EXPECT_EQ(SpoolFiles(), std::vector<std::string>{"fim.0001"});
}

TEST_F(ComponentTest, TellsWhetherItWorks) {
  Make();
  EXPECT_EQ(reporter_.Lines(), (std::vector<std::string>{"4002 " + section_.manifests[0] + " 1 manifest=applied",
                                                         "4001 FIM 1 component=started"}));
  section_.manifests.clear();
  Update();
  EXPECT_EQ(reporter_.Lines().back(), "4001 FIM 0 component=disabled");
  section_.manifests = {WriteManifest("later.json", "r2")};
  Update();
  EXPECT_EQ(reporter_.Lines().back(), "4001 FIM 1 component=started");
  component_.reset();
  EXPECT_EQ(reporter_.Lines().back(), "4001 FIM 0 component=stopped");
}

TEST_F(ComponentTest, ThatItWasStoppedIsTheLastThatItTells) {
  section_.manifests.clear();
  Make();
  EXPECT_EQ(reporter_.Lines(), std::vector<std::string>{"4001 FIM 0 component=disabled"});
  component_.reset();
  EXPECT_EQ(reporter_.Lines().back(), "4001 FIM 0 component=stopped");
}

}  // namespace
}  // namespace zagent::fim
