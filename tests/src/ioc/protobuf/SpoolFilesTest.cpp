// Batches in a real spool.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "common/src/storage/SpoolStorage.h"
#include "src/ioc/protobuf/BatchItem.h"
#include "src/ioc/protobuf/DataFormatter.h"
#include "src/ioc/protobuf/IocEvents.pb.h"
#include "tests/src/ioc/protobuf/SnapshotFixture.h"

namespace zagent::ioc::internal::protobuf {
namespace {

namespace wire = com::ostrel::ioc::model::proto::event;

class SpoolFilesTest : public testing::Test, protected SnapshotFixture {
 protected:
  static constexpr unsigned kFileSize = 4096;

  SpoolFilesTest() {
    std::filesystem::create_directory(folder_ / "spool");
    OpenSpool();
  }
  // As a component does at its start.
  void OpenSpool() {
    spool_ = std::make_unique<common::SpoolStorage>(
        scheduler_, folder_ / "spool", "ioc",
        std::make_unique<DataFormatter>(config_, std::stoll(Information("SequenceNumber")), *snapshot_),
        common::SpoolStorage::Limits{10, 600, kFileSize / 1024});
  }
  void Write(int number) {
    wire::FileEvent event;
    event.set_fullpath("/srv/" + std::string(300, 'x'));
    event.set_size(number);
    spool_->Write(MakeItem(Kind::File, event));
  }
  // All batches on disk, oldest first; the files go.
  std::vector<wire::IoCEvent> TakeBatches() {
    std::vector<wire::IoCEvent> batches;
    while (true) {
      auto file = spool_->Read();
      if (file->code != common::StorageCode::Success) return batches;
      EXPECT_LE(file->data.size(), kFileSize + 3) << "the last event may be told with a longer length";
      EXPECT_TRUE(batches.emplace_back().ParseFromArray(file->data.data(), static_cast<int>(file->data.size())));
      spool_->Delete(std::move(file));
    }
  }

  std::unique_ptr<common::SpoolStorage> spool_;
};

TEST_F(SpoolFilesTest, EveryEventIsInOneBatchAndTheNumbersHaveNoGapOverARestart) {
  for (int i = 1; i <= 200; ++i) Write(i);
  spool_.reset();
  OpenSpool();
  for (int i = 201; i <= 400; ++i) Write(i);
  spool_.reset();
  OpenSpool();
  std::uint64_t number = 0;
  std::int64_t event = 0;
  std::set<std::string> ids;
  for (const wire::IoCEvent& batch : TakeBatches()) {
    EXPECT_EQ(batch.sequenceno(), ++number);
    EXPECT_TRUE(ids.insert(batch.protofileid()).second);
    EXPECT_EQ(batch.agent().agentid(), "a");
    EXPECT_GT(batch.fileevent_size(), 0);
    for (const wire::FileEvent& file : batch.fileevent()) EXPECT_EQ(file.size(), ++event);
  }
  EXPECT_EQ(event, 400);
  EXPECT_GT(number, 20U);
  EXPECT_EQ(Information("SequenceNumber"), std::to_string(number));
}

TEST_F(SpoolFilesTest, AKillBehindAFileLetsItsNumberComeTwiceAndNoneIsMissing) {
  for (int i = 1; i <= 30; ++i) Write(i);
  spool_.reset();
  SetInformation("SequenceNumber", "2");  // the write of the last number did not reach the disk
  OpenSpool();
  for (int i = 31; i <= 60; ++i) Write(i);
  spool_.reset();
  OpenSpool();
  std::vector<std::uint64_t> numbers;
  for (const wire::IoCEvent& batch : TakeBatches()) numbers.push_back(batch.sequenceno());
  EXPECT_EQ(numbers, (std::vector<std::uint64_t>{1, 2, 3, 3, 4, 5}));
}

TEST_F(SpoolFilesTest, AMessageThatIsNoneIsLostAndTheOthersAreNot) {
  Write(1);
  EXPECT_NE(spool_->Write({1, 0x0a, 0x7f})->code, common::StorageCode::Success);
  spool_->Write({9, 1, 2, 3});
  Write(2);
  spool_.reset();
  OpenSpool();
  const auto batches = TakeBatches();
  ASSERT_EQ(batches.size(), 1U);
  EXPECT_EQ(batches[0].fileevent_size(), 2);
}

}  // namespace
}  // namespace zagent::ioc::internal::protobuf
