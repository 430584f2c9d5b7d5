#include "common/src/http/HttpPostProcessor.h"

#include "common/src/util/Log.h"

namespace zagent::common {

void HttpPostProcessor::CallHandler(const HttpErrorRecord& record) const {
  const std::string word = ActionWord(record.action);
  const auto entry = handlers_.find(word);
  if (entry == handlers_.end()) {
    ZLOG_WARNING("HttpPostProcessor: No post action '" << (word.empty() ? std::to_string(record.action) : word)
                                                       << "' found for URL: " << record.url);
    return;
  }
  if (!entry->second) {
    ZLOG_DEBUG("HttpPostProcessor: Ignoring action '" << word << "' for URL: " << record.url);
    return;
  }
  ZLOG_INFO("HttpPostProcessor: Executing post action '" << word << "' for URL: " << record.url);
  entry->second(record);
}

void HttpPostProcessor::ExecuteAction(const HttpErrorRecord& record) const noexcept {
  try {
    CallHandler(record);
  } catch (const std::exception& error) {
    ZLOG_ERROR("HttpPostProcessor: Exception occurred during post processing for URL: " << record.url
                                                                                        << ", Error: " << error.what());
  } catch (...) {
    ZLOG_ERROR("HttpPostProcessor: Exception occurred during post processing for URL: " << record.url
                                                                                        << ", Error: unknown");
  }
}

}  // namespace zagent::common
