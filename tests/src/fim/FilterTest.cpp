#include "src/fim/Filter.h"

#include <gtest/gtest.h>

#include "tests/fakes/FakeEvent.h"
#include "tests/fakes/LogCapture.h"
#include "tests/src/fim/Json.h"

namespace zagent::fim::internal {
namespace {

using fakes::FakeEvent;
using fakes::LogCapture;

Filter MakeFilter(const std::string& json, const std::string& rule_path = "/etc") {
  return Filter(Json(json).Value(), rule_path);
}

std::string ErrorOf(const std::string& json) {
  try {
    MakeFilter(json);
    return "";
  } catch (const FilterException& error) {
    return error.what();
  }
}

FakeEvent FileEvent(const std::string& path) {
  return FakeEvent(edr::EventType::Write, "Write", path);
}

FakeEvent FolderEvent(const std::string& path) {
  FakeEvent event = FileEvent(path);
  event.object_type = edr::ObjectType::Directory;
  return event;
}

FakeEvent EventAt(int hour, int minute, int second) {
  FakeEvent event = FileEvent("/etc/passwd");
  constexpr std::int64_t kMidnight = 19'700LL * 86'400;  // a day's start in UTC
  event.timestamp = (kMidnight + hour * 3'600 + minute * 60 + second) * 1'000'000'000;
  return event;
}

TEST(FilterTest, ABareNameMatchesInAnyFolderBelowTheRulesPath) {
  const Filter filter = MakeFilter(R"({"objectType":"file","patterns":["passwd"]})");
  EXPECT_TRUE(filter.Includes(FileEvent("/etc/passwd")));
  EXPECT_TRUE(filter.Includes(FileEvent("/etc/deep/down/passwd")));
  EXPECT_FALSE(filter.Includes(FileEvent("/etc/passwd-")));
  EXPECT_FALSE(filter.Includes(FileEvent("/srv/passwd")));
}

TEST(FilterTest, APatternIsConcatenatedWithTheRulesPath) {
  EXPECT_TRUE(MakeFilter(R"({"objectType":"file","patterns":["/ssh/*.conf"]})").Includes(FileEvent("/etc/ssh/a.conf")));
  EXPECT_FALSE(MakeFilter(R"({"objectType":"file","patterns":["/ssh/*.conf"]})").Includes(FileEvent("/etc/a.conf")));
  EXPECT_TRUE(MakeFilter(R"({"objectType":"file","patterns":["*.conf"]})").Includes(FileEvent("/etc/ssh/a.conf")));
}

TEST(FilterTest, ATrailingSlashOfTheRulesPathMakesNoDifference) {
  const std::string json = R"({"objectType":"file","patterns":["passwd"]})";
  EXPECT_TRUE(MakeFilter(json, "/etc/").Includes(FileEvent("/etc/passwd")));
  EXPECT_TRUE(MakeFilter(json, "/").Includes(FileEvent("/passwd")));
}

TEST(FilterTest, TheRulesPathIsNoPattern) {
  const std::string json = R"({"objectType":"file","patterns":["/x"]})";
  EXPECT_TRUE(MakeFilter(json, "/srv/[ab]*").Includes(FileEvent("/srv/[ab]*/x")));
  EXPECT_FALSE(MakeFilter(json, "/srv/[ab]").Includes(FileEvent("/srv/a/x")));
}

TEST(FilterTest, AFileFilterNeverMatchesAFolder) {
  EXPECT_FALSE(MakeFilter(R"({"objectType":"file","patterns":["*"]})").Includes(FolderEvent("/etc/ssh")));
  EXPECT_FALSE(MakeFilter(R"({"objectType":"file","patterns":[]})").Includes(FolderEvent("/etc/ssh")));
  EXPECT_TRUE(MakeFilter(R"({"objectType":"file","patterns":[]})").Includes(FileEvent("/etc/passwd")));
}

TEST(FilterTest, AFolderFilterMatchesTheFolderItsContentsAndWhatLiesRightInIt) {
  const Filter itself = MakeFilter(R"({"objectType":"directory","patterns":["/ssh"]})");
  EXPECT_TRUE(itself.Includes(FolderEvent("/etc/ssh")));
  EXPECT_FALSE(itself.Includes(FolderEvent("/etc/ssl")));

  const Filter contents = MakeFilter(R"({"objectType":"directory","patterns":["/ssh/*"]})");
  EXPECT_TRUE(contents.Includes(FolderEvent("/etc/ssh")));  // as "/etc/ssh/*"
  EXPECT_TRUE(contents.Includes(FileEvent("/etc/ssh/sshd_config")));

  const Filter parent = MakeFilter(R"({"objectType":"directory","patterns":["/ssh/"]})");
  EXPECT_TRUE(parent.Includes(FileEvent("/etc/ssh/sshd_config")));  // by its folder "/etc/ssh/"
  EXPECT_FALSE(parent.Includes(FileEvent("/etc/ssl/openssl.cnf")));
}

TEST(FilterTest, ARenameIsIncludedByEitherEndAndExcludedByBothOnly) {
  FakeEvent event = FileEvent("/etc/x.tmp");
  event.type = edr::EventType::Rename;
  event.new_file = common::ImageInfo("/etc/passwd");
  const Filter target = MakeFilter(R"({"objectType":"file","patterns":["passwd"]})");
  const Filter source = MakeFilter(R"({"objectType":"file","patterns":["*.tmp"]})");
  const Filter both = MakeFilter(R"({"objectType":"file","patterns":["*.tmp","passwd"]})");
  const Filter neither = MakeFilter(R"({"objectType":"file","patterns":["group"]})");
  EXPECT_TRUE(target.Includes(event));
  EXPECT_TRUE(source.Includes(event));
  EXPECT_FALSE(neither.Includes(event));
  EXPECT_FALSE(target.Excludes(event));
  EXPECT_FALSE(source.Excludes(event));  // an atomic replacement of a watched file
  EXPECT_TRUE(both.Excludes(event));
  EXPECT_FALSE(neither.Excludes(event));
  event.new_file.reset();  // where it went is not known
  EXPECT_TRUE(source.Excludes(event));
  EXPECT_FALSE(target.Includes(event));
}

TEST(FilterTest, AFolderFilterLooksAtBothEndsOfARenameToo) {
  FakeEvent event = FolderEvent("/srv/incoming/new");
  event.type = edr::EventType::Rename;
  event.new_file = common::ImageInfo("/etc/ssh/new");
  const Filter filter = MakeFilter(R"({"objectType":"directory","patterns":["/ssh/*"]})");
  EXPECT_TRUE(filter.Includes(event));
  EXPECT_FALSE(filter.Excludes(event));
  event.file->SetPath("/etc/ssh/old");
  EXPECT_TRUE(filter.Excludes(event));
}

TEST(FilterTest, UsersAreMatchedByLoginName) {
  const Filter filter = MakeFilter(R"({"actorUsername":["adm*","root"]})");
  FakeEvent event = FileEvent("/etc/passwd");
  event.login_name = "admin";
  EXPECT_TRUE(filter.Includes(event));
  event.login_name = "alice";
  event.user_name = "root";
  EXPECT_FALSE(filter.Includes(event));
}

TEST(FilterTest, ProcessesAreMatchedByImagePathAndABareNameInAnyFolder) {
  const Filter filter = MakeFilter(R"({"actorProcess":["vim","/usr/sbin/*","*-agent"]})");
  FakeEvent event = FileEvent("/etc/passwd");
  for (const char* image : {"/usr/bin/vim", "/usr/sbin/usermod", "/opt/x/some-agent"}) {
    event.image = common::ImageInfo(image);
    EXPECT_TRUE(filter.Includes(event)) << image;
  }
  event.image = common::ImageInfo("/usr/bin/nvim");
  EXPECT_FALSE(filter.Includes(event));
  event.image.reset();
  EXPECT_FALSE(filter.Includes(event));
}

TEST(FilterTest, AProgramInDisguiseIsNotExcludedByItsName) {
  const Filter by_process = MakeFilter(R"({"objectType":"file","patterns":["*"],"actorProcess":["apt-get"]})");
  const Filter by_path = MakeFilter(R"({"objectType":"file","patterns":["*"]})");
  FakeEvent event = FileEvent("/etc/passwd");
  event.image = common::ImageInfo("/usr/bin/apt-get");
  EXPECT_TRUE(by_process.Excludes(event));
  event.SetImageDisguised();
  EXPECT_FALSE(by_process.Excludes(event));
  EXPECT_TRUE(by_process.Includes(event)) << "an inclusion hides nothing";
  EXPECT_TRUE(by_path.Excludes(event)) << "the name of the program has no part in it";
}

TEST(FilterTest, TheTimeSpanIsUtcAndIncludesBothEnds) {
  const Filter filter = MakeFilter(R"({"timespanStart":"08:30:00","timespanEnd":"17:00:30"})");
  EXPECT_FALSE(filter.Includes(EventAt(8, 29, 59)));
  EXPECT_TRUE(filter.Includes(EventAt(8, 30, 0)));
  EXPECT_TRUE(filter.Includes(EventAt(17, 0, 30)));
  EXPECT_FALSE(filter.Includes(EventAt(17, 0, 31)));
}

TEST(FilterTest, AnEqualStartAndEndAlwaysPass) {
  const Filter filter = MakeFilter(R"({"timespanStart":"12:00:00","timespanEnd":"12:00:00"})");
  EXPECT_TRUE(filter.Includes(EventAt(0, 0, 0)));
  EXPECT_TRUE(filter.Includes(EventAt(23, 59, 59)));
}

TEST(FilterTest, EveryTestOfAFilterMustHold) {
  const Filter filter = MakeFilter(
      R"({"objectType":"file","patterns":["passwd"],"actorUsername":["root"],"actorProcess":["vi"],
          "timespanStart":"00:00:00","timespanEnd":"12:00:00"})");
  FakeEvent good = EventAt(6, 0, 0);
  good.login_name = "root";
  good.image = common::ImageInfo("/bin/vi");
  EXPECT_TRUE(filter.Includes(good));

  FakeEvent other_user = good;
  other_user.login_name = "alice";
  EXPECT_FALSE(filter.Includes(other_user));
  FakeEvent other_process = good;
  other_process.image = common::ImageInfo("/bin/ed");
  EXPECT_FALSE(filter.Includes(other_process));
  FakeEvent other_file = good;
  other_file.file->SetPath("/etc/group");
  EXPECT_FALSE(filter.Includes(other_file));
  FakeEvent other_time = good;
  other_time.timestamp += 12LL * 3'600 * 1'000'000'000;
  EXPECT_FALSE(filter.Includes(other_time));
}

TEST(FilterTest, TheSameFilterServesAnotherPath) {
  const Filter filter = MakeFilter(R"({"objectType":"file","patterns":["/x"],"actorUsername":["root"]})", "/link");
  const Filter moved = filter.ForPath("/real");
  FakeEvent event = FileEvent("/real/x");
  event.login_name = "root";
  EXPECT_TRUE(moved.Includes(event));
  EXPECT_FALSE(filter.Includes(event));
  event.login_name = "alice";
  EXPECT_FALSE(moved.Includes(event));
}

TEST(FilterTest, MalformedFiltersAreRefusedWithTheirReason) {
  EXPECT_EQ(ErrorOf("[]"), "Missing or invalid filters.");
  EXPECT_EQ(ErrorOf("{}"), "Missing or invalid filters.");
  EXPECT_EQ(ErrorOf(R"({"pattern":["typo"]})"), "Missing or invalid filters.");
  EXPECT_EQ(ErrorOf(R"({"objectType":"socket","patterns":[]})"), "Unknown object type");
  EXPECT_EQ(ErrorOf(R"({"objectType":1,"patterns":[]})"), "Invalid object-type json");
  EXPECT_EQ(ErrorOf(R"({"patterns":["x"]})"), "Invalid object-type json");
  EXPECT_EQ(ErrorOf(R"({"objectType":"file"})"), "Missing or invalid patterns");
  EXPECT_EQ(ErrorOf(R"({"objectType":"file","patterns":"x"})"), "Expected array of patterns");
  EXPECT_EQ(ErrorOf(R"({"objectType":"file","patterns":[1]})"), "Invalid value for patterns");
  EXPECT_EQ(ErrorOf(R"({"actorProcess":"vi"})"), "Expected array of processes filter");
  EXPECT_EQ(ErrorOf(R"({"actorProcess":[{}]})"), "Invalid actor-process json");
  EXPECT_EQ(ErrorOf(R"({"actorUsername":"root"})"), "Expected array of users filter");
  EXPECT_EQ(ErrorOf(R"({"actorUsername":[0]})"), "Expected array of users filter");
}

TEST(FilterTest, AMalformedTimeSpanNamesItsBadEnd) {
  const LogCapture log;
  EXPECT_EQ(ErrorOf(R"({"timespanStart":"8 o'clock","timespanEnd":"17:00:00"})"),
            "Invalid timespan filter: Invalid startTime 8 o'clock");
  EXPECT_TRUE(log.Has("[FIM]: Failed to convert time string to time tm struct"));
  EXPECT_EQ(ErrorOf(R"({"timespanStart":"08:00:00","timespanEnd":"17:00:00 CET"})"),
            "Invalid timespan filter: Invalid endTime 17:00:00 CET");
  EXPECT_EQ(ErrorOf(R"({"timespanStart":"08:00:00"})"), "Invalid timespan filter: Invalid endTime ");
  EXPECT_EQ(ErrorOf(R"({"timespanStart":"18:00:00","timespanEnd":"17:00:00"})"),
            "Invalid timespan filter: StartTime cannot be later than EndTime");
}

TEST(FilterTest, TracesEachComparison) {
  const LogCapture log;
  const Filter filter = MakeFilter(R"({"objectType":"file","patterns":["passwd"]})");
  EXPECT_TRUE(filter.Includes(FileEvent("/etc/passwd")));
  EXPECT_FALSE(filter.Includes(FileEvent("/etc/group")));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE, "Pattern: /etc*/passwd matched with value: /etc/passwd"));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_TRACE, "Pattern: /etc*/passwd not matched with value: /etc/group"));
}

}  // namespace
}  // namespace zagent::fim::internal
