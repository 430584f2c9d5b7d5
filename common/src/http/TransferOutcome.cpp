#include "common/src/http/TransferOutcome.h"

#include <curl/curl.h>

#include "common/src/util/Log.h"

namespace zagent::common {
namespace {

bool IsBetween(long code, long low, long high) {
  return code >= low && code <= high;
}

HttpStatus ErrorStatus(const TransferOutcome& outcome, HttpStatus status) {
  if (!outcome.proxy_used) return status;
  if (outcome.from_platform) {
    ZLOG_TRACE("Header Z-SRV is present, go with the retry attempts configured.");
    return status;
  }
  ZLOG_TRACE("Header Z-SRV is not present, so failover to next proxy.");
  return HttpStatus::ProxyError;
}

bool IsServerError(long code) {
  return code == 500 || IsBetween(code, 502, 504);
}

HttpStatus ByErrorCode(const TransferOutcome& outcome, long code) {
  ZLOG_ERROR("Received http error with HTTP_STATUS_CODE " << code << " for " << outcome.url);
  return ErrorStatus(outcome, IsServerError(code) ? HttpStatus::ServerError : HttpStatus::ClientError);
}

HttpStatus ByHttpCode(const TransferOutcome& outcome, long code) {
  if (code == 0) return HttpStatus::Unknown;
  if (IsServerError(code) || IsBetween(code, 400, 499)) return ByErrorCode(outcome, code);
  if (code == 200) {
    ZLOG_INFO("Http request completed successfully: " << outcome.url);
    return HttpStatus::Success;
  }
  if (IsBetween(code, 201, 204)) {
    ZLOG_INFO("Http request accepted, return code: " << code);
    return HttpStatus::Success;
  }
  if (code == 206) {
    ZLOG_INFO("Received http response with HTTP_STATUS_CODE " << code << " for " << outcome.url);
    return HttpStatus::PartialSuccess;
  }
  ZLOG_WARNING("Unexpected http response " << code << " for " << outcome.url);
  return HttpStatus::Unknown;
}

HttpStatus ByCurlCode(const TransferOutcome& outcome, HttpStatus status) {
  const std::string& url = outcome.url;
  const int code = outcome.curl_code;
  switch (code) {
    case CURLE_COULDNT_RESOLVE_PROXY:
      ZLOG_WARNING("Proxy error with CURL_STATUS_CODE " << code << " while accessing " << url);
      return HttpStatus::ProxyError;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
      ZLOG_WARNING("Network error with CURL_STATUS_CODE " << code << " accessing " << url);
      return HttpStatus::NetworkError;
    case CURLE_HTTP_RETURNED_ERROR:
      ZLOG_WARNING("Http error with CURL_STATUS_CODE " << code << " while accessing " << url);
      return ErrorStatus(outcome, HttpStatus::ServerError);
    case CURLE_PEER_FAILED_VERIFICATION:
      if (outcome.proxy_used && outcome.proxy_certificate_failed) {
        ZLOG_WARNING("SSL certificate error " << code << " while accessing " << url);
        return HttpStatus::ProxyError;
      }
      break;
    default:
      break;
  }
  ZLOG_ERROR("Unknown curl error with CURL_STATUS_CODE " << code << " while accessing " << url);
  return status;
}

// A cancel in the write or header callback ends as CURLE_WRITE_ERROR, whatever the answer's code was.
bool IsAborted(const TransferOutcome& outcome) {
  return outcome.curl_code == CURLE_ABORTED_BY_CALLBACK || (outcome.cancelled && outcome.curl_code != CURLE_OK);
}

}  // namespace

TransferVerdict Classify(const TransferOutcome& outcome) {
  TransferVerdict verdict{HttpStatus::Unknown, outcome.response_code};
  if (outcome.proxy_used && verdict.http_code == 0 && IsBetween(outcome.connect_code, 400, 599)) {
    ZLOG_INFO("Received proxy connect code: " << outcome.connect_code);
    verdict.http_code = outcome.connect_code;
  }
  verdict.status = ByHttpCode(outcome, verdict.http_code);
  if (IsAborted(outcome)) {
    ZLOG_INFO("HTTP request for " << outcome.url << " was aborted");
    verdict.status = HttpStatus::Aborted;
  } else if (outcome.curl_code != CURLE_OK) {
    verdict.status = ByCurlCode(outcome, verdict.status);
  } else {
    ZLOG_INFO("Curl request is successful for url " << outcome.url);
  }
  return verdict;
}

}  // namespace zagent::common
