// Feeds bytes to the snapshot of indicators of compromise: as a row of each of its tables, which is read as it was
// written or refused, and as a process that a tree takes up from its row, saves, and takes up again.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include "common/src/storage/SqlConnection.h"
#include "common/src/storage/SqlSharedFormatter.h"
#include "common/src/storage/SqlStorage.h"
#include "fuzz/SilentLog.h"
#include "src/ioc/process/ListText.h"
#include "src/ioc/process/ProcessTags.h"
#include "src/ioc/process/SnapshotDBDirectory.h"
#include "src/ioc/process/SnapshotDBFile.h"
#include "src/ioc/process/SnapshotDBTtlProcess.h"
#include "src/ioc/process/SnapshotSqlDataFormatter.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "tests/fakes/FakeClock.h"
#include "tests/fakes/FakeProcFs.h"
#include "tests/fakes/TempFolder.h"

namespace {

namespace common = zagent::common;
namespace models = zagent::ioc::internal::models;
namespace process_tag = zagent::ioc::internal::process_tag;
using common::Bytes;
using models::SnapshotDBTtlProcess;
using zagent::ioc::ProcessInfo;
using zagent::ioc::TtlProcessTree;
using zagent::ioc::internal::SnapshotSqlDataFormatter;

void Expect(bool holds) {
  if (!holds) std::abort();
}

// What is read makes a row that is read as the same.
template <typename Model>
bool IsRow(const Bytes& row) {
  try {
    const Model model(row);
    Expect(Model(model.ToRow()) == model);
    return true;
  } catch (const std::out_of_range&) {
    return false;
  }
}

class Snapshot {
 public:
  Snapshot() {
    proc_.Start(1, {.ppid = 0, .image = "/sbin/init", .start = 1});
    storage_ = std::make_unique<common::SqlStorage>(folder_.Path(), "snapshot",
                                                    std::make_unique<SnapshotSqlDataFormatter>(proc_.Root()), nullptr,
                                                    common::SqlStorage::Caching::Off);
    storage_->Execute("PRAGMA synchronous = OFF");
    storage_->Clear();
  }

  // The statement that writes a row writes what was read of it as well: but for NUL bytes they are the same.
  void FeedRow(const std::string& table, const Bytes& row) {
    std::string insert;
    try {
      insert = formatter_.Insert(table, "", row);
    } catch (const std::out_of_range&) {
      return;
    }
    try {
      storage_->Execute(insert);
    } catch (const common::StorageException&) {
      return;  // a key that SQLite does not take
    }
    const Bytes read = storage_->ReadAll(table).Next();
    Expect(!read.empty() && formatter_.Insert(table, "", read) == insert);
    storage_->Clear(table);
  }

  // A process below process 1, over two restarts.
  void FeedProcess(const SnapshotDBTtlProcess& process) {
    if (process.process_id == 1) return;
    SnapshotDBTtlProcess init;
    init.process_id = 1;
    init.children = {process.process_id};
    init.creation_time = (zagent::fakes::FakeProcFs::kBootTime + 1) * 1'000'000'000;
    storage_->Write("TtlProcesses", "1", init.ToRow());
    storage_->Write("TtlProcesses", std::to_string(process.process_id), process.ToRow());
    const ProcessInfo::Tags tags = Restart(process);
    Expect(Restart(process) == tags);
    storage_->Clear("TtlProcesses");
  }

 private:
  // Tags but for those of a run.
  ProcessInfo::Tags Restart(const SnapshotDBTtlProcess& process) {
    TtlProcessTree tree(storage_.get(), std::chrono::seconds(120), clock_, proc_.Root());
    Expect(tree.GetSize() == 2);
    const auto taken = tree.Get(process.process_id);
    Expect(taken->GetParent() == 1 && taken->GetScore() == process.score && taken->GetArguments() == process.arguments);
    Expect(taken->HasTag(process_tag::kTerminated) && taken->HasEvents());
    ProcessInfo::Tags tags = taken->GetTags();
    tags.erase(process_tag::kTerminated);
    Expect(tags.count(process_tag::kTtlExpired) == 0 && tags.count(process_tag::kProgramStart) == 0);
    return tags;
  }

  const zagent::fakes::TempFolder folder_;
  const zagent::fakes::FakeProcFs proc_;
  zagent::fakes::FakeClock clock_;
  SnapshotSqlDataFormatter formatter_{proc_.Root()};
  std::unique_ptr<common::SqlStorage> storage_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zagent::fuzz::SilenceLog();
  static Snapshot snapshot;
  const Bytes row(data, data + size);
  IsRow<models::SnapshotDBDirectory>(row);
  IsRow<models::SnapshotDBFile>(row);
  for (const char* table : {"ClientInformation", "Directory", "File", "TtlProcesses"}) snapshot.FeedRow(table, row);
  if (IsRow<SnapshotDBTtlProcess>(row)) snapshot.FeedProcess(SnapshotDBTtlProcess(row));
  // A whole row is seldom hit upon: the bytes as the lists of one.
  const std::string text(row.begin(), row.end());
  const auto items = zagent::ioc::internal::ReadList(text);
  Expect(zagent::ioc::internal::ReadList(zagent::ioc::internal::JoinList(items)) == items);
  SnapshotDBTtlProcess process;
  process.process_id = 7;
  process.arguments = items;
  for (std::size_t i = 1; i < items.size(); i += 2) process.tags.emplace_back(items[i - 1], items[i]);
  snapshot.FeedProcess(process);
  return 0;
}
