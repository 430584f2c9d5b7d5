#include "src/ioc/Component.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlStorage.h"
#include "common/src/util/Digest.h"
#include "common/src/util/HashGenerator.h"
#include "src/edr/DigestPace.h"
#include "src/ioc/process/SnapshotSqlDataFormatter.h"
#include "src/ioc/process/SnapshotStorage.h"
#include "src/ioc/protobuf/IocEvents.pb.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeHealthReporter.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/FakeRuleEngine.h"
#include "tests/fakes/FakeUploader.h"
#include "tests/fakes/Gate.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"
#include "tests/src/ioc/config/TestConfig.h"

namespace zagent::ioc {
namespace {

using com::ostrel::ioc::model::proto::event::IoCEvent;
using fakes::Eventually;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::int32_t kPid = 4242;
constexpr std::int64_t kSecond = 1'000'000'000;

class IocComponentTest : public testing::Test {
 protected:
  IocComponentTest() {
    proc_.Start(1, {.ppid = 0, .image = "/sbin/init", .start = 1});
    proc_.Start(getpid());  // whose use of the processor the thread looks at
    section_.manifests = {WriteManifest("manifest.json")};
    scheduler_.Start();
  }

  // Watches a folder and all processes.
  std::string WriteManifest(const std::string& name, const std::string& global_settings = "{}",
                            const std::string& rule_id = "folder", const std::string& more = "") {
    return folder_.Write(
        name, R"({"policyVersion":"2.0.0","policyId":1,"productId":1)" + more + R"(,"globalSettings":)" +
                  global_settings +
                  R"(,"rules":[{"ruleId":"processes","ruleType":"Process","notify":{"process":["create","delete"]}},)"
                  R"({"ruleId":")" +
                  rule_id +
                  R"(","ruleType":"Directory","imagePath":"/srv/watched","recursiveDepth":"All",)"
                  R"("notify":{"File":["create","write"],"Directory":["create"]}}]})");
  }

  void Make() {
    auto uploader = std::make_unique<fakes::FakeUploader>();
    uploader_ = uploader.get();
    component_ = Build(std::make_unique<Config>(*common_, ParsedJson(section_.Text())), std::move(uploader));
  }
  std::unique_ptr<Component> Build(std::unique_ptr<Config> config, std::unique_ptr<common::Uploader> uploader,
                                   std::uint64_t cpu_limit = 100) {
    return std::make_unique<Component>(clock_.Now(), std::move(config), nullptr, scheduler_, std::move(uploader),
                                       engine_, cpu_limit, 50, nullptr, reporter_, folder_.Path(), digests_, clock_,
                                       proc_.Root());
  }
  void Update() { component_->UpdateConfig(ParsedJson(section_.Text())); }
  // A manifest with these members beside those that all have.
  void UpdateTo(const std::string& name, const std::string& more) {
    section_.manifests = {WriteManifest(name, "{}", "folder", more)};
    Update();
  }

  // A process runs and opens a network connection's listening end, whose event needs nothing of the disk.
  void Deliver(edr::EventType type, const std::string& action, edr::ObjectType object) {
    fakes::FakeEvent event;
    event.type = type;
    event.action = action;
    event.object_type = object;
    event.id = ++last_id_;
    event.pid = kPid;
    event.image = common::ImageInfo(image_);
    event.timestamp = std::chrono::nanoseconds(clock_.Now().time_since_epoch()).count();
    engine_.Deliver("IOC", {"processes"}, event);
  }
  void DeliverStart() { Deliver(edr::EventType::ProcessStart, "Execve", edr::ObjectType::Process); }
  // So often the same.
  void DeliverConnections(int count) {
    for (int at = 0; at < count; ++at) Deliver(edr::EventType::Connect, "Connect", edr::ObjectType::Network);
  }
  void DeliverExit() { Deliver(edr::EventType::ProcessExit, "Exit", edr::ObjectType::Process); }
  // All that was handed over has been judged.
  [[nodiscard]] bool Judged() {
    return Eventually([&] { return log_.Has("Added process event to protobuf cache."); });
  }

  void LeaveInSpool(const std::string& name, const std::string& text) {
    std::filesystem::create_directories(folder_ / "edr/events");
    folder_.Write("edr/events/" + name, text);
  }
  [[nodiscard]] std::vector<std::string> SpoolFiles() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_ / "edr/events")) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  [[nodiscard]] IoCEvent Batch(const std::string& bytes) const {
    IoCEvent batch;
    EXPECT_TRUE(batch.ParseFromString(bytes));
    return batch;
  }
  // Lets time pass until `holds` does; false when it never did.
  [[nodiscard]] bool PassTimeUntil(const std::function<bool()>& holds) {
    return Eventually([&] {
      if (holds()) return true;
      clock_.Advance(std::chrono::seconds(60));
      return false;
    });
  }
  // The value of a name in the snapshot that a component has left.
  std::string StoredValue(const std::string& name) {
    const auto snapshot = internal::OpenSnapshotStorage(folder_ / "edr", &scheduler_, proc_.Root());
    const common::Bytes row = snapshot->Read(internal::SnapshotSqlDataFormatter::kClientInformation, name);
    if (row.empty()) return "(none)";
    common::Serializer columns(row);
    columns.GetString();
    return columns.GetString();
  }
  void StoreValue(const std::string& name, const std::string& value) {
    const auto snapshot = internal::OpenSnapshotStorage(folder_ / "edr", &scheduler_, proc_.Root());
    snapshot->Write(internal::SnapshotSqlDataFormatter::kClientInformation, name, snapshot->MakeRow(name, value));
  }

  [[nodiscard]] static std::string ErrorOf(const std::function<void()>& call) {
    try {
      call();
      return "";
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  fakes::FakeClock clock_;
  fakes::FakeProcFs proc_;
  std::unique_ptr<common::CommonConfig> common_ = MakeCommonConfig();
  TestSection section_;
  fakes::FakeRuleEngine engine_;
  fakes::FakeHealthReporter reporter_;
  common::Scheduler scheduler_{clock_};
  std::shared_ptr<common::util::DigestCache> digests_;
  std::uint32_t last_id_ = 0;
  std::string image_ = "/bin/actor";
  fakes::FakeUploader* uploader_ = nullptr;
  std::unique_ptr<Component> component_;
};

TEST_F(IocComponentTest, ConfigurationAndUploaderAreNeeded) {
  EXPECT_EQ(ErrorOf([&] { Build(nullptr, std::make_unique<fakes::FakeUploader>()); }),
            "ioc::Component: 'config' cannot be null");
  EXPECT_EQ(ErrorOf([&] { Build(std::make_unique<Config>(*common_, ParsedJson(section_.Text())), nullptr); }),
            "ioc::Component: 'uploader' cannot be null");
}

TEST_F(IocComponentTest, ItsFoldersAreMadeForTheirOwnerOnly) {
  section_.event_file_path = "deep/events/";
  Make();
  for (const char* folder : {"edr", "edr/deep/events"}) {
    struct stat stat {};
    ASSERT_EQ(::stat((folder_ / folder).c_str(), &stat), 0) << folder;
    EXPECT_EQ(stat.st_mode & 07777U, 0700U) << folder;
  }
  EXPECT_TRUE(std::filesystem::exists(folder_ / "edr/SnapshotEdr.db"));
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "[IOC]: Component initialized."));
}

TEST_F(IocComponentTest, AnAbsoluteEventPathIsTakenAsItIs) {
  section_.event_file_path = folder_ / "elsewhere";
  Make();
  EXPECT_TRUE(std::filesystem::is_directory(folder_ / "elsewhere"));
  EXPECT_FALSE(std::filesystem::exists(folder_ / "edr/events"));
}

TEST_F(IocComponentTest, AFolderThatCannotBeMadeLeavesNothingBehind) {
  section_.event_file_path = folder_.Write("file", "") + "/events";
  EXPECT_THAT(ErrorOf([&] { Make(); }), HasSubstr("IocComponent: Failed to create"));
  EXPECT_TRUE(engine_.Calls().empty());
}

TEST_F(IocComponentTest, AFailureBehindItsRulesTakesThemAwayAgain) {
  EXPECT_THROW(Build(std::make_unique<Config>(*common_, ParsedJson(section_.Text())),
                     std::make_unique<fakes::FakeUploader>(), 101),
               std::invalid_argument);
  EXPECT_EQ(engine_.Calls().size(), 2U);
  EXPECT_TRUE(engine_.Installed("IOC").empty());
}

TEST_F(IocComponentTest, TheThreadPacesItselfByTheProcfsThatItWasGiven) {
  std::filesystem::remove(proc_.Root() + "/meminfo");
  EXPECT_EQ(ErrorOf([&] { Make(); }), "Failed to read total system memory from proc fs");
  EXPECT_TRUE(engine_.Installed("IOC").empty());
}

TEST_F(IocComponentTest, AnEventTravelsFromTheEngineToThePlatform) {
  Make();
  EXPECT_EQ(engine_.Installed("IOC").size(), 2U);
  DeliverStart();
  ASSERT_TRUE(Judged());
  ASSERT_TRUE(PassTimeUntil([&] { return !uploader_->Uploads().empty(); }));
  const auto upload = uploader_->Uploads()[0];
  EXPECT_EQ(upload.url, "https://platform.example/linuxagentevent/v1/customer/c/agent/a");
  const IoCEvent batch = Batch(upload.payload);
  EXPECT_EQ(batch.sequenceno(), 1U);
  ASSERT_EQ(batch.processevent_size(), 1);
  EXPECT_EQ(batch.processevent(0).processid(), kPid);
  EXPECT_EQ(batch.processevent(0).imagepath(), "/bin/actor");
  ASSERT_TRUE(PassTimeUntil([&] { return SpoolFiles().empty(); }));
}

TEST_F(IocComponentTest, AnOrderlyStopJudgesWhatHasComeAndKeepsItOnDisk) {
  section_.upload_interval = 0;
  Make();
  DeliverStart();
  DeliverExit();
  component_.reset();
  ASSERT_THAT(SpoolFiles(), ElementsAre("ioc.0001"));
  EXPECT_EQ(Batch(folder_.Read("edr/events/ioc.0001")).processevent_size(), 2);
  EXPECT_TRUE(engine_.Installed("IOC").empty());
  DeliverStart();  // nobody listens any more
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "[IOC]: Ioc component destroyed."));
}

TEST_F(IocComponentTest, SequenceNumbersGoOnOverARestart) {
  section_.upload_interval = 0;
  for (int start = 0; start < 3; ++start) {
    Make();
    DeliverStart();
    component_.reset();
  }
  ASSERT_EQ(SpoolFiles().size(), 3U);
  for (const unsigned number : {1U, 2U, 3U}) {
    EXPECT_EQ(Batch(folder_.Read("edr/events/ioc.000" + std::to_string(number))).sequenceno(), number);
  }
  EXPECT_EQ(StoredValue("SequenceNumber"), "3");
  EXPECT_FALSE(log_.Has("Error in reading sequence number"));
}

TEST_F(IocComponentTest, ASequenceNumberThatCannotBeReadIsZeroAndTheComponentStarts) {
  section_.upload_interval = 0;
  for (const char* value : {"", "12x", "x", "9223372036854775808", "9223372036854775807", "-1"}) {
    StoreValue("SequenceNumber", value);
    const fakes::LogCapture log;
    Make();
    EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "[IOC]: Error in reading sequence number")) << value;
    DeliverStart();
    component_.reset();
    const auto files = SpoolFiles();
    EXPECT_EQ(Batch(folder_.Read("edr/events/" + files.back())).sequenceno(), 1U) << value;
  }
}

TEST_F(IocComponentTest, ASequenceNumberThatIsMissingIsZeroToo) {
  Make();
  component_.reset();
  internal::OpenSnapshotStorage(folder_ / "edr", &scheduler_, proc_.Root())->Clear();
  Make();
  EXPECT_EQ(log_.Count("Error in reading sequence number"), 1);
  EXPECT_TRUE(log_.Has("Component initialized."));
}

TEST_F(IocComponentTest, ProcessesOutliveARestart) {
  section_.upload_interval = 0;
  proc_.Start(kPid, {.image = "/bin/actor", .start = 100'000'000});  // the time of the fake clock
  Make();
  DeliverStart();
  component_.reset();
  Make();
  // The end of a process that was told of in the run before is told, too.
  DeliverExit();
  component_.reset();
  ASSERT_EQ(SpoolFiles().size(), 2U);
  const IoCEvent batch = Batch(folder_.Read("edr/events/ioc.0002"));
  ASSERT_EQ(batch.processevent_size(), 1);
  EXPECT_EQ(batch.processevent(0).status(), "Stop");
}

TEST_F(IocComponentTest, WithoutManifestsItStandsIdleAndSaysSo) {
  section_.manifests.clear();
  Make();
  EXPECT_TRUE(engine_.Installed("IOC").empty());
  EXPECT_THAT(reporter_.Lines(), ElementsAre("4101 IOC 0 component=disabled"));
  Update();
  EXPECT_FALSE(log_.Has("Disabling IOC"));
}

TEST_F(IocComponentTest, FromOneManifestToNoneItForgetsWhatItHasStored) {
  section_.upload_interval = 0;
  Make();
  DeliverStart();
  ASSERT_TRUE(Judged());
  section_.manifests.clear();
  Update();
  EXPECT_EQ(log_.Count("[IOC]: Disabling IOC"), 1);
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_INFORMATION, "[IOC]: Successfully cleared sql storage"));
  ASSERT_TRUE(Eventually([&] { return log_.Has("[IOC]: Successfully cleared spool storage"); }));
  EXPECT_TRUE(engine_.Installed("IOC").empty());
  EXPECT_EQ(reporter_.Lines().back(), "4101 IOC 0 component=disabled");
  Update();
  EXPECT_EQ(log_.Count("Disabling IOC"), 1);
  component_.reset();
  EXPECT_THAT(SpoolFiles(), IsEmpty());
  EXPECT_EQ(StoredValue("SequenceNumber"), "(none)");
}

TEST_F(IocComponentTest, SwitchedOffItTellsNoEndOfWhatItToldBefore) {
  section_.upload_interval = 0;
  Make();
  DeliverStart();
  ASSERT_TRUE(Judged());
  section_.manifests.clear();
  Update();
  ASSERT_TRUE(Eventually([&] { return log_.Has("[IOC]: Successfully cleared spool storage"); }));
  DeliverExit();
  component_.reset();
  EXPECT_THAT(SpoolFiles(), IsEmpty());
}

TEST_F(IocComponentTest, StartedWithoutManifestsItTellsNoEndOfAnEarlierRunEither) {
  section_.upload_interval = 0;
  proc_.Start(kPid, {.image = "/bin/actor", .start = 100'000'000});  // the time of the fake clock
  Make();
  DeliverStart();
  component_.reset();
  ASSERT_EQ(SpoolFiles().size(), 1U);
  section_.manifests.clear();
  Make();
  DeliverExit();
  component_.reset();
  EXPECT_EQ(SpoolFiles().size(), 1U);
}

// The daemon has lost its rights to the folder. Root has them in spite of all modes, so it becomes somebody else.
class WithoutRights {
 public:
  explicit WithoutRights(std::vector<std::string> folders) : folders_(std::move(folders)) {
    for (const std::string& folder : folders_) EXPECT_EQ(chmod(folder.c_str(), 0555), 0) << folder;
    EXPECT_TRUE(!was_root_ || seteuid(65534) == 0);
  }
  WithoutRights(const WithoutRights&) = delete;
  WithoutRights& operator=(const WithoutRights&) = delete;
  ~WithoutRights() {
    EXPECT_TRUE(!was_root_ || seteuid(0) == 0);
    for (const std::string& folder : folders_) EXPECT_EQ(chmod(folder.c_str(), 0700), 0) << folder;
  }

 private:
  const std::vector<std::string> folders_;
  const bool was_root_ = geteuid() == 0;
};

TEST_F(IocComponentTest, ASpoolThatCannotBeClearedIsToldInTheLog) {
  section_.upload_interval = 0;
  LeaveInSpool("ioc.0001", "1");
  Make();
  {
    const WithoutRights lost({folder_.Path(), folder_ / "edr", folder_ / "edr/events"});
    section_.manifests.clear();
    Update();
    EXPECT_TRUE(Eventually([&] { return log_.Has(Poco::Message::PRIO_ERROR, "[IOC]: Failed to clear spool storage"); }))
        << log_.All();
  }
  EXPECT_FALSE(log_.Has("Successfully cleared spool storage"));
  EXPECT_THAT(SpoolFiles(), ElementsAre("ioc.0001"));
}

TEST_F(IocComponentTest, AFileThatTheSpoolRemovesForWantOfRoomIsCounted) {
  section_.max_disk_size_mb = 1;
  section_.upload_interval = 0;
  LeaveInSpool("ioc.0001", std::string(700 * 1024, 'x'));
  LeaveInSpool("ioc.0002", std::string(400 * 1024, 'x'));
  Make();
  DeliverStart();
  ASSERT_TRUE(Judged());
  component_.reset();
  EXPECT_THAT(SpoolFiles(), ElementsAre("ioc.0002", "ioc.0003"));
  EXPECT_THAT(reporter_.RemovedFiles(), ElementsAre(700 * 1024));
}

TEST_F(IocComponentTest, ItCanBeSwitchedOnAgain) {
  const std::vector<std::string> manifests = section_.manifests;
  section_.upload_interval = 0;
  section_.manifests.clear();
  Make();
  section_.manifests = manifests;
  bool is_told = false;
  engine_.BeforeNextAdd([&] {
    DeliverStart();
    is_told = Judged();
  });
  Update();
  EXPECT_TRUE(is_told) << "what a rule brings while the others are not yet in force";
  EXPECT_EQ(engine_.Installed("IOC").size(), 2U);
  EXPECT_EQ(reporter_.Lines().back(), "4101 IOC 1 component=started");
  section_.manifests.clear();
  Update();
  EXPECT_EQ(log_.Count("Disabling IOC"), 1);
}

TEST_F(IocComponentTest, TheGatewayOfTheManifestIsWhereUploadsGoUntilAnotherManifestHasNone) {
  section_.manifests = {WriteManifest("gateway.json", R"({"gateway_url":"https://gateway.example/"})")};
  LeaveInSpool("ioc.0001", "1");
  Make();
  uploader_->AwaitUploads(1);  // no time passes
  EXPECT_EQ(uploader_->Uploads()[0].url, "https://gateway.example/linuxagentevent/v1/customer/c/agent/a");
  section_.manifests = {WriteManifest("plain.json")};
  Update();
  DeliverStart();
  ASSERT_TRUE(Judged());
  ASSERT_TRUE(PassTimeUntil([&] { return uploader_->Uploads().size() >= 2; }));
  EXPECT_EQ(uploader_->Uploads()[1].url, "https://platform.example/linuxagentevent/v1/customer/c/agent/a");
}

TEST_F(IocComponentTest, NewManifestsReplaceTheRulesAndTheFilterLearnsOfThem) {
  section_.upload_interval = 0;
  section_.manifests = {folder_.Write(
      "folder-alone.json", R"({"policyVersion":"2.0.0","policyId":1,"productId":1,"globalSettings":{},"rules":[]})")};
  Make();
  DeliverStart();  // known, but no rule wants it told
  section_.manifests = {WriteManifest("new.json", "{}", "other")};
  Update();
  EXPECT_EQ(engine_.Installed("IOC").count("other"), 1U);
  DeliverStart();
  component_.reset();
  ASSERT_THAT(SpoolFiles(), ElementsAre("ioc.0001"));
  EXPECT_GE(Batch(folder_.Read("edr/events/ioc.0001")).processevent_size(), 1);
}

// The engines

TEST_F(IocComponentTest, RepetitionsAreDampedUnlessTheManifestSaysNo) {
  const auto dropped = [](std::uint32_t id) {
    return "[IOC]: Dropping Connect event for process /bin/actor with ID " + std::to_string(id) +
           " based on heuristics";
  };
  const auto taken = [](std::uint32_t id) { return "Adding Connect Event: " + std::to_string(id) + " with PID:"; };
  Make();
  DeliverStart();
  DeliverConnections(11);
  ASSERT_TRUE(Eventually([&] { return log_.Has(dropped(12)); }));
  EXPECT_EQ(log_.Count("based on heuristics"), 1);
  EXPECT_TRUE(log_.Has(taken(11)));

  UpdateTo("quiet.json", R"(,"heuristicsEnabled":false)");
  DeliverConnections(1);
  ASSERT_TRUE(Eventually([&] { return log_.Has(taken(13)); }));

  UpdateTo("loud.json", R"(,"heuristicsEnabled":true)");
  DeliverConnections(11);
  ASSERT_TRUE(Eventually([&] { return log_.Has(dropped(24)); })) << "it counts anew";
  EXPECT_EQ(log_.Count("based on heuristics"), 2);

  UpdateTo("louder.json", R"(,"heuristicsEnabled":true)");
  DeliverConnections(1);
  ASSERT_TRUE(Eventually([&] { return log_.Has(dropped(25)); })) << "it has not forgotten";
}

TEST_F(IocComponentTest, KnownProgramsAreThoseOfTheManifest) {
  image_ = folder_.Write("known", "a program");
  const auto judged = [&](const std::string& verdict, int times) {
    return Eventually([&] {
      return log_.Count("[IOC]: Adding verdict '" + verdict + "' to process 4242 (" + image_ + ")") == times;
    });
  };
  const std::string known = R"(,"knownProcessPaths":[")" + image_ + R"("])";
  section_.manifests = {WriteManifest("known.json", "{}", "folder", known)};
  Make();
  DeliverStart();
  ASSERT_TRUE(judged("CleanWithoutHash", 1));
  DeliverStart();
  ASSERT_TRUE(judged("Clean", 1));

  UpdateTo("nobody.json", "");
  DeliverStart();
  ASSERT_TRUE(judged("Unknown", 1));

  UpdateTo("known-again.json", known);
  DeliverStart();
  ASSERT_TRUE(judged("CleanWithoutHash", 2)) << "the digest from before is forgotten";
}

TEST_F(IocComponentTest, KnownProgramsHaveTheDigestsOfTheCacheThatItWasGiven) {
  clock_.SetWall(std::chrono::hours(24 * 365 * 100));  // every file counts as settled
  digests_ = std::make_shared<common::util::DigestCache>(clock_);
  image_ = folder_.Write("known", "a program");
  const common::util::HashGenerator others(image_, "", 0, common::util::HashKind::All, digests_.get());
  ASSERT_EQ(log_.Count("Reading file content from " + image_), 1);
  section_.manifests = {WriteManifest("known.json", "{}", "folder", R"(,"knownProcessPaths":[")" + image_ + R"("])")};
  Make();
  DeliverStart();
  ASSERT_TRUE(Eventually([&] { return log_.Has("Adding verdict 'CleanWithoutHash'"); }));
  EXPECT_EQ(log_.Count("Reading file content from " + image_), 1);
}

TEST_F(IocComponentTest, ALargeFileWhoseDigestsTheCacheHasIsToldWithThemEachTime) {
  digests_ = std::make_shared<common::util::DigestCache>(clock_);
  const std::string path = folder_.Write("large", "");
  std::filesystem::resize_file(path, edr::DigestPace::kMaxFreeSize + 1);
  struct stat found {};
  ASSERT_EQ(stat(path.c_str(), &found), 0);
  digests_->Keep(found, {.md5 = {}, .sha1 = {}, .sha256 = std::vector<unsigned char>(32, 1)});
  section_.manifests = {
      folder_.Write("folder.json", R"({"policyVersion":"2.0.0","policyId":1,"productId":1,"globalSettings":{},
          "heuristicsEnabled":false,"rules":[{"ruleId":"f","ruleType":"Directory","imagePath":")" +
                                       folder_.Path() + R"(","recursiveDepth":"All","notify":{"File":["write"]}}]})")};
  Make();
  DeliverStart();
  fakes::FakeEvent write(edr::EventType::Write, "Write", path);
  write.pid = kPid;
  write.image = common::ImageInfo(image_);
  write.size = found.st_size;
  write.content_hash = std::vector<unsigned char>(32, 1);
  for (int at = 0; at < 3; ++at) engine_.Deliver("IOC", {"f"}, write);
  ASSERT_TRUE(Eventually([&] { return log_.Count("Added file event to protobuf cache.") == 3; })) << log_.All();
  EXPECT_EQ(log_.Count("[IOC]: sha256: " + common::util::ToHex(std::string(32, 1)) + " File: " + path), 3);
}

TEST_F(IocComponentTest, WhatWasSeenOfAFileIsNotToldOfWhatHappenedToItLater) {
  digests_ = std::make_shared<common::util::DigestCache>(clock_);
  const std::string path = folder_.Write("watched", "x");
  const auto content = [&](unsigned char byte) {
    struct stat found {};
    ASSERT_EQ(stat(path.c_str(), &found), 0);
    const auto bytes = [byte](std::size_t size) { return std::vector<unsigned char>(size, byte); };
    digests_->KeepType(found, "data");
    digests_->Keep(found, {.md5 = bytes(16), .sha1 = bytes(20), .sha256 = bytes(32)});
  };
  section_.manifests = {
      folder_.Write("folder.json", R"({"policyVersion":"2.0.0","policyId":1,"productId":1,"globalSettings":{},
          "heuristicsEnabled":false,"rules":[{"ruleId":"f","ruleType":"Directory","imagePath":")" +
                                       folder_.Path() + R"(","recursiveDepth":"All","notify":{"File":["write"]}}]})")};
  Make();
  DeliverStart();
  for (const unsigned char byte : {1, 2}) {
    folder_.Write("watched", std::string(byte, 'x'));
    content(byte);
    struct stat found {};
    ASSERT_EQ(stat(path.c_str(), &found), 0);
    fakes::FakeEvent event(edr::EventType::Write, "Write", path);
    event.id = ++last_id_;
    event.pid = kPid;
    event.image = common::ImageInfo(image_);
    event.file = common::ImageInfo(path, found);
    event.size = byte;
    engine_.Deliver("IOC", {"f"}, event);
    const std::string hex = common::util::ToHex(std::string(32, static_cast<char>(byte)));
    EXPECT_TRUE(Eventually([&] { return log_.Has("sha256: " + hex + " File: " + path); })) << hex;
  }
}

TEST_F(IocComponentTest, TagsAndTheirThresholdAreThoseOfTheManifest) {
  image_ = folder_.Write("known", "a program");
  const auto settings = [&](int threshold) {
    return R"(,"knownProcessPaths":[")" + image_ + R"("],"tags":{"thresholdScore":)" + std::to_string(threshold) +
           R"(,"Exfiltration":{"score":10,"processRegex":"^.*/known$"}})";
  };
  section_.manifests = {WriteManifest("patient.json", "{}", "folder", settings(100))};
  Make();
  DeliverStart();  // to be hashed
  DeliverStart();
  DeliverConnections(1);
  ASSERT_TRUE(Eventually([&] { return log_.Has("PID: 4242 Threshold: 100 Score: 10"); })) << log_.All();
  EXPECT_FALSE(log_.Has("Connect event for process")) << "it waits";

  UpdateTo("strict.json", settings(10));
  ASSERT_TRUE(PassTimeUntil([&] { return log_.Has("Connect event for 'Clean' process with pid 4242 ("); }))
      << "what waits is judged by the new threshold";
  EXPECT_FALSE(log_.Has("Ignoring Connect event"));
  DeliverConnections(1);
  ASSERT_TRUE(Eventually([&] { return log_.Has("PID: 4242 Threshold: 10 Score: 10"); }));
  EXPECT_TRUE(Eventually([&] { return log_.Has("Connect event for process with pid 4242 ("); })) << "at once";

  UpdateTo("off.json", R"(,"tags":{"thresholdScore":0})");
  DeliverConnections(1);
  EXPECT_TRUE(Eventually([&] { return log_.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Tagging is disabled"); }));
}

TEST_F(IocComponentTest, AManifestWithoutTagsLeavesTheTagsOfTheOneBeforeInForce) {
  image_ = folder_.Write("known", "a program");
  const std::string known = R"(,"knownProcessPaths":[")" + image_ + R"("])";
  const std::string refusal = "[IOC]: Tag settings does not have threshold score";
  section_.manifests = {WriteManifest("none.json", "{}", "folder", known)};
  Make();
  EXPECT_TRUE(log_.Has(Poco::Message::PRIO_ERROR, refusal)) << "there are none yet";
  DeliverStart();
  DeliverConnections(1);
  ASSERT_TRUE(Eventually([&] { return log_.Has(Poco::Message::PRIO_DEBUG, "[IOC]: Tagging is disabled"); }));

  UpdateTo("tags.json", known + R"(,"tags":{"thresholdScore":10,)"
                                R"("Exfiltration":{"score":10,"processRegex":"^.*/known$"}})");
  DeliverConnections(1);
  ASSERT_TRUE(Eventually([&] { return log_.Count("PID: 4242 Threshold: 10 Score: 10") == 1; })) << log_.All();

  const int refusals = log_.Count(refusal);
  UpdateTo("none-again.json", known);
  EXPECT_EQ(log_.Count(refusal), refusals + 1);
  DeliverConnections(1);
  EXPECT_TRUE(Eventually([&] { return log_.Count("PID: 4242 Threshold: 10 Score: 10") == 2; })) << log_.All();
}

TEST_F(IocComponentTest, WhatNewRulesBringIsJudgedByThemEvenBeforeAllAreInForce) {
  section_.upload_interval = 0;
  section_.manifests = {folder_.Write(
      "no-rules.json", R"({"policyVersion":"2.0.0","policyId":1,"productId":1,"globalSettings":{},"rules":[]})")};
  Make();
  section_.manifests = {WriteManifest("new.json")};
  bool is_told = false;
  engine_.BeforeNextAdd([&] {
    DeliverStart();
    is_told = Judged();
  });
  Update();
  EXPECT_TRUE(is_told);
}

TEST_F(IocComponentTest, TheEnginesKnowOfANewManifestEvenBeforeItsRulesAreInForce) {
  image_ = folder_.Write("known", "a program");
  Make();
  section_.manifests = {WriteManifest("known.json", "{}", "folder", R"(,"knownProcessPaths":[")" + image_ + R"("])")};
  bool is_known = false;
  engine_.BeforeNextAdd([&] {
    DeliverStart();
    is_known = Eventually([&] { return log_.Has("Adding verdict 'CleanWithoutHash' to process"); });
  });
  Update();
  EXPECT_TRUE(is_known);
}

TEST_F(IocComponentTest, RulesThatWereLostAreInstalledAgain) {
  Make();
  const std::size_t calls = engine_.Calls().size();
  engine_.Invalidate();
  EXPECT_EQ(engine_.Calls().size(), calls + 1);
  EXPECT_EQ(engine_.Installed("IOC").size(), 2U);
}

TEST_F(IocComponentTest, AMalformedSectionChangesNothing) {
  Make();
  const std::size_t calls = engine_.Calls().size();
  EXPECT_THROW(component_->UpdateConfig(ParsedJson(R"({"manifests":[]})")), std::invalid_argument);
  EXPECT_EQ(engine_.Calls().size(), calls);
  EXPECT_FALSE(log_.Has("Disabling IOC"));
}

TEST_F(IocComponentTest, NewLimitsReachTheSpool) {
  Make();
  section_.max_disk_size_mb = 0;
  Update();
  EXPECT_TRUE(Eventually([&] { return log_.Has("SpoolStorage::Update: Ignoring invalid max disk size setting"); }));
  EXPECT_FALSE(log_.Has("Ignoring invalid max file age setting"));
}

TEST_F(IocComponentTest, ANewIntervalTakesEffectAtOnce) {
  section_.upload_interval = 0;
  LeaveInSpool("ioc.0001", "1");
  Make();
  EXPECT_TRUE(uploader_->Uploads().empty());
  section_.upload_interval = 30;
  Update();
  uploader_->AwaitUploads(1);  // no time passes: the first run is due at once
}

TEST_F(IocComponentTest, AnEngineWithoutAKernelDoesNotKeepItFromStarting) {
  engine_.FailAdds("Failed to open audit socket");
  Make();
  EXPECT_TRUE(log_.Has("[IOC]: Component initialized."));
}

TEST_F(IocComponentTest, EventsAndReadersDoNotMindAConfigurationThatChanges) {
  section_.upload_interval = 0;
  const std::string one = WriteManifest("one.json", R"({"gateway_url":"https://one.example"})");
  const std::string two = WriteManifest("two.json", "{}", "other");
  section_.manifests = {one};
  Make();
  std::atomic<bool> ended{false};
  std::thread events([&] {
    while (!ended) DeliverStart();
  });
  std::thread reader([&] {
    while (!ended) {
      (void)component_->GetQueuedEvents();
      (void)component_->GetWaitingBytes();
      (void)component_->GetCachedBytes();
    }
  });
  for (int i = 1; i <= 20; ++i) {
    section_.manifests = {i % 2 == 0 ? one : two};
    Update();
    engine_.Invalidate();
  }
  ended = true;
  events.join();
  reader.join();
  EXPECT_EQ(engine_.Installed("IOC").count("folder"), 1U);
  EXPECT_TRUE(Eventually([&] { return component_->GetQueuedEvents() == 0; }));
  EXPECT_EQ(reporter_.Dropped(), 0U);
}

TEST_F(IocComponentTest, TellsWhetherItWorks) {
  Make();
  EXPECT_THAT(reporter_.Lines(),
              ElementsAre("4102 " + section_.manifests[0] + " 1 manifest=applied", "4101 IOC 1 component=started"));
  component_.reset();
  EXPECT_EQ(reporter_.Lines().back(), "4101 IOC 0 component=stopped");
}

}  // namespace
}  // namespace zagent::ioc
