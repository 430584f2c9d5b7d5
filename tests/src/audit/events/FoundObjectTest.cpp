#include "src/audit/events/FoundObject.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"

namespace zagent::audit::internal {
namespace {

constexpr std::int64_t kNow = 1'700'000'000'000'000'000;

class FoundObjectTest : public ::testing::Test {
 protected:
  [[nodiscard]] std::unique_ptr<edr::Event> Find(const std::string& name) const {
    return MakeFoundObject(folder_ / name, "rule", kNow, nullptr);
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
};

TEST_F(FoundObjectTest, IsTheCreationOfAFileByNobodyKnown) {
  folder_.Write("with blank", "12345");
  const auto event = Find("with blank");
  ASSERT_NE(event, nullptr);
  EXPECT_EQ(event->GetType(), edr::EventType::Create);
  EXPECT_EQ(event->GetObjectType(), edr::ObjectType::File);
  EXPECT_EQ(event->GetFile()->GetPath(), folder_ / "with blank");
  EXPECT_EQ(event->GetFileSize(), 5);
  EXPECT_EQ(event->GetActorProcessId(), 0);
  EXPECT_EQ(event->GetTimestamp(), kNow);
  EXPECT_EQ(event->GetAuditKey(), "rule");
  EXPECT_TRUE(event->IsSuccessful());
  event->Refresh();
  EXPECT_EQ(event->GetFileContent(), (std::vector<unsigned char>{'1', '2', '3', '4', '5'}));
}

TEST_F(FoundObjectTest, TellsOfFoldersAndOfLinksThemselves) {
  std::filesystem::create_directory(folder_ / "sub");
  std::filesystem::create_symlink("nowhere", folder_ / "link");
  EXPECT_EQ(Find("sub")->GetObjectType(), edr::ObjectType::Directory);
  EXPECT_TRUE(Find("link")->IsSymlink());
  EXPECT_EQ(Find("link")->GetFile()->GetPath(), folder_ / "link");
}

TEST_F(FoundObjectTest, TellsOfNothingElse) {
  ASSERT_EQ(mkfifo((folder_ / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(Find("fifo"), nullptr);
  EXPECT_EQ(Find("missing"), nullptr);
}

TEST_F(FoundObjectTest, LooksAtTheEntriesOfAFolderOnly) {
  std::filesystem::create_directories(folder_ / "sub/below");
  folder_.Write("a", "");
  std::set<std::string> found;
  for (const auto& event : MakeFoundEntries(folder_.Path(), "rule", kNow, nullptr, 10)) {
    found.insert(event->GetFile()->GetPath());
  }
  EXPECT_EQ(found, (std::set<std::string>{folder_ / "a", folder_ / "sub"}));
  EXPECT_TRUE(MakeFoundEntries(folder_ / "missing", "rule", kNow, nullptr, 10).empty());
}

TEST_F(FoundObjectTest, LooksAtSoManyEntriesOnly) {
  for (const char* name : {"a", "b", "c"}) folder_.Write(name, "");
  EXPECT_EQ(MakeFoundEntries(folder_.Path(), "rule", kNow, nullptr, 3).size(), 3U);
  EXPECT_FALSE(log_.Has("Only the first"));
  EXPECT_EQ(MakeFoundEntries(folder_.Path(), "rule", kNow, nullptr, 2).size(), 2U);
  EXPECT_TRUE(
      log_.Has(Poco::Message::PRIO_WARNING, "Only the first 2 entries of " + folder_.Path() + " were looked at"));
}

}  // namespace
}  // namespace zagent::audit::internal
