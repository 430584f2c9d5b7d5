#pragma once

#include <cstdint>
#include <string>

#include "common/src/storage/StorageResult.h"

namespace zagent::health {

// One row of the status database, its columns in table order.
struct AHSRecord {
  std::string time;  // "2024-05-01T10:20:30Z"
  std::string context_id;
  std::int64_t status_code = 0;
  std::int64_t state = 0;
  std::string additional_fields;  // a JSON object, or empty

  // Throws std::out_of_range when the row is cut short (see Serializer).
  static AHSRecord FromRow(const common::Bytes& row);
};

}  // namespace zagent::health
