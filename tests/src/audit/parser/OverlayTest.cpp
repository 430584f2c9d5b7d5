// Changes on an overlay, whose kernel code tells in the same event what it does in its upper layer.
#include <Poco/String.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "src/audit/parser/RecordFeed.h"
#include "src/edr/process/ImageInfo.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/TestData.h"

namespace zagent::audit::internal {
namespace {

using testing::ElementsAre;

class OverlayTest : public testing::Test {
 protected:
  static constexpr const char* kRecorded = "/srv/w/overlay";

  static std::string Replaced(const std::string& one, const std::string& other, std::string text) {
    return Poco::replaceInPlace(text, one, other);
  }
  // "Create /srv/w/overlay/a" for each event of a step. The overlay may stand in for another folder that is there:
  // calls that change a file do not name its folder.
  std::vector<std::string> Told(const std::string& step, const std::string& overlay = kRecorded) {
    const std::string text = Replaced(kRecorded, overlay, fakes::RecordsOfStep("audit-overlay-6.1.log", step));
    FileContext context;
    context.extended_coverage = true;  // none of the files is here
    RecordFeed feed(MakeEventFactory(context), counters_);
    feed.Feed(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    feed.Flush();
    std::vector<std::string> lines;
    for (const auto& event : feed.TakeEvents()) {
      std::string line = event->GetAction() + " " + event->GetFile()->GetPath();
      if (event->GetType() == edr::EventType::Rename) line += " -> " + event->GetNewFile()->GetPath();
      lines.push_back(Replaced(overlay, kRecorded, line));
    }
    return lines;
  }

  const fakes::LogCapture log_;
  const fakes::TempFolder folder_;
  IntakeCounters counters_;
};

TEST_F(OverlayTest, WhatIsMadeIsMadeOnce) {
  EXPECT_THAT(Told("create /srv/w/overlay/a"), ElementsAre("Create /srv/w/overlay/a"));
  EXPECT_THAT(Told("mkdir /srv/w/overlay/made"), ElementsAre("Create /srv/w/overlay/made"));
  EXPECT_THAT(Told("symlink /srv/w/overlay/s target"), ElementsAre("Create /srv/w/overlay/s"));
  EXPECT_THAT(Told("link /srv/w/overlay/l /srv/w/overlay/edited"), ElementsAre("Create /srv/w/overlay/l"));
}

TEST_F(OverlayTest, TheCopyOfAFileThatIsChangedFirstIsNoChange) {
  EXPECT_THAT(Told("write /srv/w/overlay/appended", folder_.Path()), ElementsAre("Write /srv/w/overlay/appended"));
  EXPECT_THAT(Told("chmod /srv/w/overlay/mode 600", folder_.Path()), ElementsAre("Change /srv/w/overlay/mode"));
}

TEST_F(OverlayTest, TheWhiteoutBehindARemovalIsNoneOfItsEvents) {
  EXPECT_THAT(Told("unlink /srv/w/overlay/removed"), ElementsAre("Delete /srv/w/overlay/removed"));
  EXPECT_THAT(Told("rmdir /srv/w/overlay/made"), ElementsAre("Delete /srv/w/overlay/made"));
  EXPECT_THAT(Told("unlink /srv/w/overlay/a"), ElementsAre("Delete /srv/w/overlay/a"));
}

TEST_F(OverlayTest, ARenameIsOfTheNamesOfTheCall) {
  EXPECT_THAT(Told("rename /srv/w/overlay/old-name /srv/w/overlay/new-name"),
              ElementsAre("Rename /srv/w/overlay/old-name -> /srv/w/overlay/new-name"));
  EXPECT_THAT(Told("rename /srv/w/overlay/b /srv/w/overlay/tree/c"),
              ElementsAre("Rename /srv/w/overlay/b -> /srv/w/overlay/tree/c"));
  EXPECT_THAT(Told("rename-over /srv/w/overlay/l /srv/w/overlay/appended"),
              ElementsAre("Delete /srv/w/overlay/appended", "Rename /srv/w/overlay/l -> /srv/w/overlay/appended"));
}

}  // namespace
}  // namespace zagent::audit::internal
