#include "src/ioc/process/SnapshotDBFile.h"

#include "common/src/storage/Serializer.h"

namespace zagent::ioc::internal::models {

using common::Serializer;

SnapshotDBFile::SnapshotDBFile(const common::Bytes& row) {
  Serializer columns(row);
  row_id = columns.GetString();
  parent_id = columns.GetString();
  size = columns.GetInteger();
  creation_time = columns.GetInteger();
  last_write_time = columns.GetInteger();
  last_access_time = columns.GetInteger();
  last_change_time = columns.GetInteger();
  md5 = columns.GetString();
  sha1 = columns.GetString();
  sha256 = columns.GetString();
}

common::Bytes SnapshotDBFile::ToRow() const {
  return ToRow(
      {row_id, parent_id, size, creation_time, last_write_time, last_access_time, last_change_time, md5, sha1, sha256});
}

common::Bytes SnapshotDBFile::ToRow(const View& file) {
  return Serializer::MakeRow(file.row_id, file.parent_id, file.size, file.creation_time, file.last_write_time,
                             file.last_access_time, file.last_change_time, file.md5, file.sha1, file.sha256);
}

}  // namespace zagent::ioc::internal::models
