#pragma once

#include <string>

#include "common/src/storage/StorageResult.h"
#include "src/fim/JsonCopy.h"

namespace zagent::fim::internal {

// The payload of one upload: the document of a spool file with the time of the upload, "2024-05-01T10:20:30Z", as its
// member `timestamp`. Throws JsonCopyException when the file is no object with an array `events`.
common::Bytes BuildUploadDocument(common::Bytes file, const std::string& timestamp);

}  // namespace zagent::fim::internal
