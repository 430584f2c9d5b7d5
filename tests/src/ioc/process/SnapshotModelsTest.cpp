#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

#include "common/src/storage/Serializer.h"
#include "src/ioc/process/SnapshotDBDirectory.h"
#include "src/ioc/process/SnapshotDBFile.h"
#include "src/ioc/process/SnapshotDBTtlProcess.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/WhatOf.h"

namespace zagent::ioc::internal::models {
namespace {

using common::Serializer;

const std::string kHostile("a'b\"c\nd:e=f%g;--\xff", 18);

ProcessInfo::Description Known() {
  ProcessInfo::Description known;
  known.pid = 20;
  known.ppid = 10;
  known.arguments = {"sh", "", kHostile};
  known.auid = 4294967295U;
  known.uid = 1000;
  known.euid = 0;
  known.creation_time = 1'700'000'000'123'456'789;
  known.cwd = kHostile;
  known.image = common::ImageInfo("08:01", 755, std::numeric_limits<std::uint64_t>::max() - 1, kHostile, 5, "tty",
                                  "ro'ot", 6, "text");
  known.secondary_image = common::ImageInfo("/srv/script");
  return known;
}

void ExpectSameImage(const common::ImageInfo& one, const common::ImageInfo& other) {
  EXPECT_EQ(one.GetDevice(), other.GetDevice());
  EXPECT_EQ(one.GetPermission(), other.GetPermission());
  EXPECT_EQ(one.GetInode(), other.GetInode());
  EXPECT_EQ(one.GetPath(), other.GetPath());
  EXPECT_EQ(one.GetGroupId(), other.GetGroupId());
  EXPECT_EQ(one.GetGroupName(), other.GetGroupName());
  EXPECT_EQ(one.GetOwnerId(), other.GetOwnerId());
  EXPECT_EQ(one.GetOwnerName(), other.GetOwnerName());
  EXPECT_EQ(one.GetText(), other.GetText());
}

TEST(SnapshotModelsTest, ARowOfAProcessHoldsAllOfIt) {
  ProcessInfo process(Known(), nullptr);
  process.AddChild(31);
  process.AddChild(30);
  process.AddTag("Reported");
  process.AddTag(kHostile, kHostile);
  process.AddScore(-7);
  const SnapshotDBTtlProcess read(SnapshotDBTtlProcess(process).ToRow());
  EXPECT_EQ(read, SnapshotDBTtlProcess(process));
  EXPECT_EQ(read.process_id, 20);
  EXPECT_EQ(read.parent, 10);
  EXPECT_EQ(read.children, (std::vector<std::int32_t>{30, 31}));
  EXPECT_EQ(read.score, -7);
  EXPECT_EQ(read.tags, (std::vector<std::pair<std::string, std::string>>{{"Reported", ""}, {kHostile, kHostile}}));
  const ProcessInfo again(read.ToDescription(), nullptr);
  EXPECT_EQ(again.GetPid(), 20);
  EXPECT_EQ(again.GetArguments(), process.GetArguments());
  EXPECT_EQ(again.GetAuid(), 4294967295U);
  EXPECT_EQ(again.GetUserId(), 1000U);
  EXPECT_EQ(again.GetEuid(), 0U);
  EXPECT_EQ(again.GetCreationTime(), 1'700'000'000'123'456'789);
  EXPECT_EQ(again.GetCwd(), kHostile);
  ExpectSameImage(*again.GetImage(), *process.GetImage());
  ASSERT_TRUE(again.HasSecondaryImage());
  ExpectSameImage(*again.GetSecondaryImage(), *process.GetSecondaryImage());
}

TEST(SnapshotModelsTest, AProcessWithoutListsAndScriptComesBackWithoutThem) {
  ProcessInfo::Description known;
  known.pid = 20;
  const ProcessInfo process(std::move(known), nullptr);
  const SnapshotDBTtlProcess read(SnapshotDBTtlProcess(process).ToRow());
  EXPECT_TRUE(read.arguments.empty());
  EXPECT_TRUE(read.children.empty());
  EXPECT_TRUE(read.tags.empty());
  EXPECT_FALSE(ProcessInfo(read.ToDescription(), nullptr).HasSecondaryImage());
}

TEST(SnapshotModelsTest, AFileAndADirectoryAreRowsOfTheirColumnsInOrder) {
  SnapshotDBFile file;
  file.row_id = "id";
  file.parent_id = "parent";
  file.size = -2;
  file.creation_time = 3;
  file.last_write_time = 4;
  file.last_access_time = 5;
  file.last_change_time = std::numeric_limits<std::int64_t>::max();
  file.sha1 = kHostile;
  file.sha256 = std::string(300, 'x');
  common::Bytes row;
  for (const char* text : {"id", "parent"}) Serializer::Put(row, std::string_view(text));
  for (const std::int64_t number : {std::int64_t{-2}, std::int64_t{3}, std::int64_t{4}, std::int64_t{5}}) {
    Serializer::Put(row, number);
  }
  Serializer::Put(row, std::numeric_limits<std::int64_t>::max());
  for (const std::string& text : {std::string(), std::string(kHostile), std::string(300, 'x')}) {
    Serializer::Put(row, text);
  }
  EXPECT_EQ(file.ToRow(), row);

  SnapshotDBDirectory directory;
  directory.row_id = "id";
  directory.path = kHostile;
  directory.creation_time = 1;
  directory.last_write_time = 2;
  directory.last_access_time = 3;
  directory.last_change_time = 4;
  row.clear();
  for (const std::string& text : {std::string("id"), std::string(kHostile)}) Serializer::Put(row, text);
  for (std::int64_t number = 1; number <= 4; ++number) Serializer::Put(row, number);
  EXPECT_EQ(directory.ToRow(), row);
}

// A row with what nobody has written like this.
common::Bytes Row(std::int64_t pid, const std::string& children, const std::string& tags) {
  common::Bytes row;
  const auto put_image = [&row] {
    Serializer::Put(row, std::string());
    for (int i = 0; i < 2; ++i) Serializer::Put(row, std::int64_t{0});
    Serializer::Put(row, std::string());
    Serializer::Put(row, std::int64_t{0});
    for (int i = 0; i < 2; ++i) Serializer::Put(row, std::string());
    Serializer::Put(row, std::int64_t{0});
    Serializer::Put(row, std::string());
  };
  Serializer::Put(row, pid);
  Serializer::Put(row, std::string("sh"));
  Serializer::Put(row, std::int64_t{-1});
  Serializer::Put(row, children);
  Serializer::Put(row, std::int64_t{0});
  Serializer::Put(row, std::string());
  Serializer::Put(row, std::int64_t{0});
  put_image();
  for (int i = 0; i < 2; ++i) Serializer::Put(row, std::int64_t{0});
  put_image();
  Serializer::Put(row, tags);
  Serializer::Put(row, std::int64_t{0});
  return row;
}

TEST(SnapshotModelsTest, ADeformedTagIsToldAndLeftOut) {
  const fakes::LogCapture log;
  const SnapshotDBTtlProcess read(Row(5, "", "Reported=%00:broken::Verdict=Clean"));
  EXPECT_EQ(read.tags, (std::vector<std::pair<std::string, std::string>>{{"Reported", ""}, {"Verdict", "Clean"}}));
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "[IOC]: Tag value broken is deformed in db.")) << log.All();
  EXPECT_TRUE(log.Has(Poco::Message::PRIO_ERROR, "[IOC]: Tag value  is deformed in db."));
}

TEST(SnapshotModelsTest, AnEqualsSignInAValueIsPartOfIt) {
  EXPECT_EQ(SnapshotDBTtlProcess(Row(5, "", "a=b=c")).tags,
            (std::vector<std::pair<std::string, std::string>>{{"a", "b=c"}}));
}

TEST(SnapshotModelsTest, AChildThatIsNoNumberIsLeftOut) {
  EXPECT_EQ(SnapshotDBTtlProcess(Row(5, "7:x:8y:99999999999:9", "")).children, (std::vector<std::int32_t>{7, 9}));
}

TEST(SnapshotModelsTest, APidThatIsNoneMakesNoProcess) {
  for (const std::int64_t pid : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{1} << 31}) {
    EXPECT_EQ(fakes::WhatOf<std::out_of_range>([&] { const SnapshotDBTtlProcess read(Row(pid, "", "")); }),
              "There is no process with pid " + std::to_string(pid));
  }
}

template <typename Model>
void ExpectNoModelOfACutRow(const common::Bytes& row) {
  for (std::size_t size = 0; size < row.size(); ++size) {
    const common::Bytes cut(row.begin(), row.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_THROW(Model{cut}, std::out_of_range) << size;
  }
}

TEST(SnapshotModelsTest, ARowThatIsCutShortIsNone) {
  ExpectNoModelOfACutRow<SnapshotDBTtlProcess>(Row(5, "6", "a=b"));
  ExpectNoModelOfACutRow<SnapshotDBFile>(SnapshotDBFile().ToRow());
  ExpectNoModelOfACutRow<SnapshotDBDirectory>(SnapshotDBDirectory().ToRow());
  const common::Bytes empty;
  EXPECT_EQ(fakes::WhatOf<std::out_of_range>([&] { const SnapshotDBTtlProcess read(empty); }),
            "Serializer: Insufficient bytes to get data");
  common::Bytes row = SnapshotDBDirectory().ToRow();
  row[0] = 200;
  EXPECT_EQ(fakes::WhatOf<std::out_of_range>([&] { const SnapshotDBDirectory read(row); }),
            "Serializer: Insufficient bytes to get string");
}

TEST(SnapshotModelsTest, ARowOfAFileHoldsAllOfIt) {
  SnapshotDBFile file;
  file.row_id = "id";
  file.parent_id = kHostile;
  file.size = -1;
  file.creation_time = 1;
  file.last_write_time = 2;
  file.last_access_time = 3;
  file.last_change_time = 4;
  file.md5 = "m";
  file.sha1 = "s1";
  file.sha256 = "s256";
  EXPECT_EQ(SnapshotDBFile(file.ToRow()), file);
}

TEST(SnapshotModelsTest, ARowOfAFolderHoldsAllOfIt) {
  SnapshotDBDirectory folder;
  folder.row_id = "id";
  folder.path = kHostile;
  folder.creation_time = 1;
  folder.last_write_time = 2;
  folder.last_access_time = 3;
  folder.last_change_time = 4;
  EXPECT_EQ(SnapshotDBDirectory(folder.ToRow()), folder);
}

}  // namespace
}  // namespace zagent::ioc::internal::models
