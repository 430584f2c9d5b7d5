#include "src/audit/routing/OwnActivity.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/FakeProcessInfo.h"
#include "tests/fakes/LogCapture.h"

namespace zagent::audit::internal {
namespace {

class OwnActivityTest : public ::testing::Test {
 protected:
  [[nodiscard]] bool IsOwn(std::int32_t pid, const std::string& image = "/usr/bin/vi") const {
    fakes::FakeEvent event;
    event.pid = pid;
    event.image = common::ImageInfo(image);
    return own_.IsSourceOf(event, {500});
  }
  void AddProcess(std::int32_t pid, std::int32_t ppid, const std::string& image) {
    tree_.Add(std::make_unique<fakes::FakeProcessInfo>(pid, ppid, image));
  }

  common::ProcessTree tree_;
  fakes::FakeProcFs processes_;
  ImageProof proof_{777, processes_.Root()};
  OwnActivity own_{tree_, proof_, OwnActivity::DefaultSiblingNames(), "/opt/ostrel"};
};

TEST_F(OwnActivityTest, KnowsTheExcludedProcesses) {
  EXPECT_TRUE(IsOwn(500));
  EXPECT_FALSE(IsOwn(501));
}

TEST_F(OwnActivityTest, KnowsASiblingByNameAndFolder) {
  EXPECT_TRUE(IsOwn(7, "/opt/ostrel/bin/ostrel-av-scanner"));
  EXPECT_TRUE(IsOwn(7, "/opt/ostrel/updated"));
  EXPECT_FALSE(IsOwn(7, "/tmp/ostrel-av-scanner"));
  EXPECT_FALSE(IsOwn(7, "/opt/ostrel/bin/vi"));
  EXPECT_FALSE(IsOwn(7, "/opt/ostrel-old/ostrel-av-scanner"));  // another folder with the same beginning
}

TEST_F(OwnActivityTest, ReadsTheFolderWithAndWithoutATrailingSlash) {
  const OwnActivity with_slash(tree_, proof_, {"updated"}, "/opt/ostrel//");
  const OwnActivity without_folder(tree_, proof_, {"updated"}, "");
  fakes::FakeEvent event;
  event.image = common::ImageInfo("/opt/ostrel/updated");
  EXPECT_TRUE(with_slash.IsSourceOf(event, {}));
  EXPECT_FALSE(without_folder.IsSourceOf(event, {}));
}

TEST_F(OwnActivityTest, MatchesNoProcessByTheTwoNamesThatRunTogether) {
  const std::set<std::string> names = OwnActivity::DefaultSiblingNames();
  EXPECT_EQ(names.size(), 21U);  // twenty of the family, and "updated"
  EXPECT_EQ(names.count("ostrel-edrostrel-health-check"), 1U);
  EXPECT_FALSE(IsOwn(7, "/opt/ostrel/bin/ostrel-edr"));
  EXPECT_FALSE(IsOwn(7, "/opt/ostrel/bin/ostrel-health-check"));
}

TEST_F(OwnActivityTest, KnowsItsOwnChildrenWithoutTheTree) {
  const OwnActivity own(tree_, proof_, {}, "", 4711);
  fakes::FakeEvent event;
  event.pid = 4712;
  event.image = common::ImageInfo("/usr/bin/vi");
  event.ppid = 4711;
  EXPECT_TRUE(own.IsSourceOf(event, {}));
  event.ppid = 4710;
  EXPECT_FALSE(own.IsSourceOf(event, {}));
}

TEST_F(OwnActivityTest, KnowsTheChildrenOfAnExcludedProcess) {
  AddProcess(500, -1, "/usr/bin/anything");
  AddProcess(501, 500, "/bin/sh");
  AddProcess(502, 501, "/bin/cp");
  EXPECT_TRUE(IsOwn(502));
  AddProcess(600, -1, "/bin/sh");
  EXPECT_FALSE(IsOwn(600));
}

TEST_F(OwnActivityTest, KnowsTheChildrenOfASibling) {
  AddProcess(700, -1, "/opt/ostrel/bin/ostrel-patch-manager");
  AddProcess(701, 700, "/usr/bin/dpkg");
  EXPECT_TRUE(IsOwn(701));
}

TEST_F(OwnActivityTest, JudgesAProcessOfTheTreeByTheTreeAlone) {
  AddProcess(600, -1, "/bin/sh");
  EXPECT_FALSE(IsOwn(600, "/opt/ostrel/updated"));
}

TEST_F(OwnActivityTest, DoesNotTakeAProcessForTheSiblingThatItWasByTheTree) {
  AddProcess(600, -1, "/opt/ostrel/updated");
  EXPECT_TRUE(IsOwn(600, "/opt/ostrel/updated"));
  EXPECT_FALSE(IsOwn(600, "/bin/sh"));
  AddProcess(601, 600, "/bin/sh");
  EXPECT_TRUE(IsOwn(601, "/bin/cp")) << "what a sibling starts is the family's";
}

TEST_F(OwnActivityTest, JudgesEventsWithoutProcessOrImage) {
  EXPECT_FALSE(IsOwn(0));
  EXPECT_FALSE(IsOwn(-1));
  fakes::FakeEvent event;
  event.image.reset();
  EXPECT_FALSE(own_.IsSourceOf(event, {500}));
}

TEST_F(OwnActivityTest, DoesNotBelieveASiblingThatRunsAnotherFile) {
  processes_.Start(7, 100, "/bin/sh");
  EXPECT_FALSE(IsOwn(7, "/opt/ostrel/updated"));
  AddProcess(7, -1, "/opt/ostrel/updated");
  AddProcess(8, 7, "/bin/cp");
  EXPECT_FALSE(IsOwn(8)) << "nor what it starts";
}

TEST_F(OwnActivityTest, DoesNotBelieveAStrangersSiblingThatIsGone) {
  fakes::FakeEvent event;
  event.pid = 7;
  event.image = common::ImageInfo("/opt/ostrel/updated");
  event.uid = event.euid = 1000;
  EXPECT_FALSE(own_.IsSourceOf(event, {}));
  event.uid = event.euid = 777;
  EXPECT_TRUE(own_.IsSourceOf(event, {}));
}

TEST_F(OwnActivityTest, FindsTheSiblingThatAnEventOfAProcessTellsOf) {
  fakes::FakeEvent event;
  event.type = edr::EventType::ProcessStart;
  event.pid = 7;
  event.image = common::ImageInfo("/opt/ostrel/updated");
  ASSERT_TRUE(own_.FindSibling(event));
  EXPECT_EQ(own_.FindSibling(event)->pid, 7);
  event.image = common::ImageInfo("/opt/updated");
  EXPECT_FALSE(own_.FindSibling(event));
  event.image.reset();
  EXPECT_FALSE(own_.FindSibling(event));
}

TEST_F(OwnActivityTest, AsksTheTreeWhoEndedAbnormally) {
  const fakes::LogCapture log;
  fakes::FakeEvent event;
  event.type = edr::EventType::AbnormalEnd;
  event.image.reset();
  event.pid = 7;
  EXPECT_FALSE(own_.FindSibling(event));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_DEBUG, "Failed to find process information for pid: 7"));
  AddProcess(7, -1, "/opt/ostrel/updated");
  ASSERT_TRUE(own_.FindSibling(event));
  EXPECT_EQ(own_.FindSibling(event)->image, "/opt/ostrel/updated");
}

}  // namespace
}  // namespace zagent::audit::internal
