#include "src/health/AHSRecord.h"

#include "common/src/storage/Serializer.h"

namespace zagent::health {

AHSRecord AHSRecord::FromRow(const common::Bytes& row) {
  common::Serializer columns(row);
  AHSRecord record;
  record.time = columns.GetString();
  record.context_id = columns.GetString();
  record.status_code = columns.GetInteger();
  record.state = columns.GetInteger();
  record.additional_fields = columns.GetString();
  return record;
}

}  // namespace zagent::health
