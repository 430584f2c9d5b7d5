#include "common/src/http/interceptors/PayloadDumperHttpInterceptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "common/src/util/UniqueFd.h"

namespace zagent::common {
namespace {

void Dump(const std::vector<unsigned char>& bytes, const std::string& file) {
  const util::UniqueFd fd(open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
  std::size_t written = 0;
  while (fd && written < bytes.size()) {
    const ssize_t count = write(fd.Get(), bytes.data() + written, bytes.size() - written);
    if (count <= 0) break;
    written += static_cast<std::size_t>(count);
  }
  if (!fd || written < bytes.size()) {
    ZLOG_ERROR("PayloadDumperHttpInterceptor:: Failed to write " << file << ": " << util::ErrnoText(errno));
    return;
  }
  ZLOG_DEBUG("PayloadDumperHttpInterceptor:: Wrote " << written << " bytes to " << file);
}

}  // namespace

PayloadDumperHttpInterceptor::PayloadDumperHttpInterceptor(std::string request_file, std::string chunk_response_file,
                                                           std::string final_response_file)
    : request_file_(std::move(request_file)),
      chunk_response_file_(std::move(chunk_response_file)),
      final_response_file_(std::move(final_response_file)) {
  if (request_file_.empty() || chunk_response_file_.empty() || final_response_file_.empty()) {
    throw HttpInterceptorException(
        "PayloadLogger: request, chunk-response and final-reponse file paths cannot be empty");
  }
}

std::unique_ptr<HttpInterceptor> PayloadDumperHttpInterceptor::Clone() const {
  return std::make_unique<PayloadDumperHttpInterceptor>(*this);
}

void PayloadDumperHttpInterceptor::ProcessRequest(std::string& url, std::vector<unsigned char>& payload, HttpHeaders&,
                                                  const std::string&) {
  url_ = url;
  if (payload.empty()) {
    ZLOG_DEBUG("PayloadDumperHttpInterceptor:: Request payload is empty for url : " << url_);
    return;
  }
  Dump(payload, request_file_);
}

HttpInterceptor::ChunkResult PayloadDumperHttpInterceptor::ProcessResponseChunk(const std::vector<unsigned char>& chunk,
                                                                                std::vector<unsigned char>&) {
  if (chunk.empty()) {
    ZLOG_DEBUG("PayloadDumperHttpInterceptor:: Response chunk payload is empty for url : " << url_);
  } else {
    Dump(chunk, chunk_response_file_);
  }
  return ChunkResult::Continue;
}

void PayloadDumperHttpInterceptor::ProcessResponse(const std::string&, MutableHttpResponse&) {
  ZLOG_DEBUG("PayloadDumperHttpInterceptor:: Response final logging is not implemented");
}

}  // namespace zagent::common
