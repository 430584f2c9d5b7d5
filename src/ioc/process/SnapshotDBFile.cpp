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
  constexpr std::size_t kOrdinary = 512;
  common::Bytes row;
  row.reserve(kOrdinary);
  Serializer::Put(row, row_id);
  Serializer::Put(row, parent_id);
  Serializer::Put(row, size);
  Serializer::Put(row, creation_time);
  Serializer::Put(row, last_write_time);
  Serializer::Put(row, last_access_time);
  Serializer::Put(row, last_change_time);
  Serializer::Put(row, md5);
  Serializer::Put(row, sha1);
  Serializer::Put(row, sha256);
  return row;
}

}  // namespace zagent::ioc::internal::models
