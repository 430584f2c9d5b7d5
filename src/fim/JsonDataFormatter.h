#pragma once

#include "common/src/storage/DataFormatter.h"

namespace zagent::fim::internal {

// The shape of FIM's spool files: {"events":[<document>,<document>,...]}.
class JsonDataFormatter final : public common::DataFormatter {
 public:
  // One event document as JSON text. What is not exactly one JSON object is refused:
  // "fim::JsonDataFormatter: 'data' is not a valid JSON object".
  void Append(const common::Bytes& data) override;
  common::Bytes Finish() override;
  // What Finish would give now, in bytes; 0 when nothing was appended.
  [[nodiscard]] std::size_t Size() const override;
  void Clear() override;

 private:
  common::Bytes events_;  // documents with commas between them
};

}  // namespace zagent::fim::internal
