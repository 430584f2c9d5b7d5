// Feeds bytes to both ends of a spool file of indicators of compromise: as items to the formatter, whose batch must
// then be one that the receiver takes, and as a whole to the receiver, which must say of it what fits on lines.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "common/src/tasks/Scheduler.h"
#include "common/src/util/Json.h"
#include "fuzz/SilentLog.h"
#include "src/ioc/config/Config.h"
#include "src/ioc/process/SnapshotStorage.h"
#include "src/ioc/protobuf/DataFormatter.h"
#include "tests/fakes/TempFolder.h"
#include "tests/src/ioc/config/TestConfig.h"
#include "tools/reference-receiver/IocBatch.h"

namespace {

namespace common = zagent::common;
using zagent::tools::IocBatch;

void Expect(bool holds) {
  if (!holds) std::abort();
}

class Spool {
 public:
  Spool() { scheduler_.Start(); }

  // Items one behind the other, each with its length in the byte before it.
  void Feed(const std::string& items) {
    std::size_t taken = 0;
    for (std::size_t at = 0; at < items.size();) {
      const std::size_t length = static_cast<unsigned char>(items[at++]);
      const std::string item = items.substr(at, length);
      at += item.size();
      const std::size_t before = formatter_.Size();
      try {
        formatter_.Append({item.begin(), item.end()});
        taken += !item.empty() && static_cast<unsigned char>(item[0]) < 5 ? 1 : 0;
      } catch (const common::DataFormatterException&) {
        // What is no message says so, and leaves the batch as it was but for its beginning.
        Expect(before == 0 || formatter_.Size() == before);
      }
    }
    const std::size_t size = formatter_.Size();
    const common::Bytes file = formatter_.Finish();
    formatter_.Clear();
    Expect(file.size() == size);
    if (file.empty()) return Expect(taken == 0);
    const auto batch = IocBatch::Decode({file.begin(), file.end()});
    Expect(batch && batch->customer_id == "c" && batch->agent_id == "a" && batch->lines.size() == 1 + taken);
  }

 private:
  zagent::fakes::TempFolder folder_;
  common::Scheduler scheduler_;
  const std::unique_ptr<common::SqlStorage> snapshot_ =
      zagent::ioc::internal::OpenSnapshotStorage(folder_.Path(), &scheduler_);
  const std::unique_ptr<common::CommonConfig> common_ = zagent::ioc::MakeCommonConfig();
  const zagent::ioc::Config config_{*common_, zagent::ioc::ParsedJson(zagent::ioc::TestSection().Text())};
  zagent::ioc::internal::protobuf::DataFormatter formatter_{config_, 0, *snapshot_};
};

void Receive(const std::string& payload) {
  const auto batch = IocBatch::Decode(payload);
  if (!batch) return;
  for (const std::string& line : batch->lines) {
    Expect(line.find('\n') == std::string::npos && line.find('\x1b') == std::string::npos);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zagent::fuzz::SilenceLog();
  static Spool spool;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  spool.Feed(bytes);
  Receive(bytes);
  return 0;
}
