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
  common::Bytes row;
  Serializer::Put(row, row_id);
  Serializer::Put(row, path);
  Serializer::Put(row, creation_time);
  Serializer::Put(row, last_write_time);
  Serializer::Put(row, last_access_time);
  Serializer::Put(row, last_change_time);
  return row;
}

}  // namespace zagent::ioc::internal::models
