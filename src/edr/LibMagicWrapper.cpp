#include "src/edr/LibMagicWrapper.h"

#include <magic.h>

#include <cerrno>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"

namespace zagent::edr {
namespace {

constexpr std::size_t kLongestDescription = 255;

std::string ErrorOf(magic_set* set) {
  const char* text = magic_error(set);
  return text != nullptr ? text : "";
}

}  // namespace

void LibMagicWrapper::Closer::operator()(magic_set* set) const {
  magic_close(set);
}

LibMagicWrapper::LibMagicWrapper() = default;

LibMagicWrapper::LibMagicWrapper(const std::string& database, int flags)
    : database_(database), set_(magic_open(flags)) {
  if (!set_) throw LibMagicException(common::util::ErrnoText(errno));
  ZLOG_DEBUG("Loading magic DB from path: " << database_);
  Load();
  ZLOG_DEBUG("Successfully loaded magic DB: " << database_);
}

LibMagicWrapper::~LibMagicWrapper() = default;

std::uint64_t LibMagicWrapper::GetLoadCount() const {
  return load_count_;
}

void LibMagicWrapper::Reload() {
  const std::lock_guard lock(mutex_);
  if (!set_) throw LibMagicException("Magic Set struct not initialized");
  Load();
  ZLOG_DEBUG("Successfully Re-loaded magic DB: " << database_);
}

void LibMagicWrapper::Load() {
  if (magic_load(set_.get(), database_.c_str()) != 0) throw LibMagicException(ErrorOf(set_.get()));
  ++load_count_;
}

std::optional<std::string> LibMagicWrapper::Identify(const std::string& path) {
  const std::lock_guard lock(mutex_);
  if (!set_) throw LibMagicException("Magic Set struct not initialized");
  const char* description = magic_file(set_.get(), path.c_str());
  if (description == nullptr) {
    ZLOG_ERROR("Error magic_file: " << path << " error: " << ErrorOf(set_.get()));
    return std::nullopt;
  }
  std::string text(description);
  if (text.size() > kLongestDescription) text.resize(kLongestDescription);
  ZLOG_TRACE("File type text identified by lib magic: " << text << " for file: " << path);
  return text;
}

}  // namespace zagent::edr
