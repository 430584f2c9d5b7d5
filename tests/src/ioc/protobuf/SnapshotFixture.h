#pragma once

#include <memory>
#include <string>

#include "common/src/storage/Serializer.h"
#include "common/src/storage/SqlStorage.h"
#include "common/src/tasks/Scheduler.h"
#include "src/ioc/config/Config.h"
#include "src/ioc/process/SnapshotStorage.h"
#include "tests/fakes/LogCapture.h"
#include "tests/fakes/TempFolder.h"
#include "tests/fakes/WhatOf.h"
#include "tests/src/ioc/config/TestConfig.h"

namespace zagent::ioc::internal::protobuf {

// A snapshot on disk, and a configuration.
class SnapshotFixture {
 protected:
  SnapshotFixture() {
    scheduler_.Start();
    snapshot_ = OpenSnapshotStorage(folder_ / "edr", &scheduler_, "/nowhere");
  }

  // What is on disk by now.
  std::string Information(const std::string& name) {
    common::SqlRowIterator rows = snapshot_->Query("SELECT * from ClientInformation WHERE Name = '" + name + "'");
    const common::Bytes row = rows.Next();
    if (row.empty()) return "(none)";
    common::Serializer columns(row);
    columns.GetString();
    return columns.GetString();
  }
  void SetInformation(const std::string& name, const std::string& value) {
    snapshot_->Write("ClientInformation", name, snapshot_->MakeRow(name, value));
  }

  fakes::LogCapture log_;
  fakes::TempFolder folder_;
  common::Scheduler scheduler_;
  std::unique_ptr<common::SqlStorage> snapshot_;
  TestSection section_;
  const std::unique_ptr<common::CommonConfig> common_ = MakeCommonConfig();
  Config config_{*common_, ParsedJson(section_.Text())};
};

}  // namespace zagent::ioc::internal::protobuf
