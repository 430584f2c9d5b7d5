#include "common/src/http/InMemoryHttpResponse.h"

#include "common/src/util/Log.h"

namespace zagent::common {

void InMemoryHttpResponse::UpdatePayload(std::vector<unsigned char> payload) {
  RequireOpen("Cannot update HttpResponse payload after it has been finalized");
  payload_ = std::move(payload);
  ZLOG_TRACE("Updated response payload");
}

}  // namespace zagent::common
