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
  constexpr std::size_t kOrdinary = 512;
  common::Bytes row;
  row.reserve(kOrdinary);
  Serializer::Put(row, file.row_id);
  Serializer::Put(row, file.parent_id);
  Serializer::Put(row, file.size);
  Serializer::Put(row, file.creation_time);
  Serializer::Put(row, file.last_write_time);
  Serializer::Put(row, file.last_access_time);
  Serializer::Put(row, file.last_change_time);
  Serializer::Put(row, file.md5);
  Serializer::Put(row, file.sha1);
  Serializer::Put(row, file.sha256);
  return row;
}

}  // namespace zagent::ioc::internal::models
