#include "src/ioc/process/SnapshotDBDirectory.h"

#include "common/src/storage/Serializer.h"

namespace zagent::ioc::internal::models {

using common::Serializer;

SnapshotDBDirectory::SnapshotDBDirectory(const common::Bytes& row) {
  Serializer columns(row);
  row_id = columns.GetString();
  path = columns.GetString();
  creation_time = columns.GetInteger();
  last_write_time = columns.GetInteger();
  last_access_time = columns.GetInteger();
  last_change_time = columns.GetInteger();
}

common::Bytes SnapshotDBDirectory::ToRow() const {
  return Serializer::MakeRow(row_id, path, creation_time, last_write_time, last_access_time, last_change_time);
}

}  // namespace zagent::ioc::internal::models
