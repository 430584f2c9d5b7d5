#include "common/src/http/InMemoryHttpResponse.h"

#include <algorithm>

#include "common/src/http/HttpException.h"
#include "common/src/util/Log.h"

namespace zagent::common {

void InMemoryHttpResponse::UpdatePayload(std::vector<unsigned char> payload) {
  RequireOpen("Cannot update HttpResponse payload after it has been finalized");
  payload_ = std::move(payload);
  ZLOG_TRACE("Updated response payload");
}

void InMemoryHttpResponse::AppendPayload(std::vector<unsigned char> payload) {
  if (payload_.empty()) return UpdatePayload(std::move(payload));
  RequireOpen("Cannot update HttpResponse payload after it has been finalized");
  if (payload.size() > kMaxPayloadInMemory - std::min(kMaxPayloadInMemory, payload_.size())) {
    throw HttpException("Response payload is larger than " + std::to_string(kMaxPayloadInMemory) + " bytes");
  }
  payload_.insert(payload_.end(), payload.begin(), payload.end());
  ZLOG_TRACE("Updated response payload");
}

}  // namespace zagent::common
