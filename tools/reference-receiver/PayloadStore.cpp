#include "tools/reference-receiver/PayloadStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/UniqueFd.h"

namespace zagent::tools {
namespace {

using common::util::ErrnoText;
using common::util::UniqueFd;

void WriteAll(int fd, const std::string& text, const std::string& path) {
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t count = write(fd, text.data() + written, text.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) throw std::runtime_error("Cannot write " + path + ": " + ErrnoText(errno));
    written += static_cast<std::size_t>(count);
  }
}

}  // namespace

PayloadStore::PayloadStore(std::string folder, bool keep, const common::util::Clock& clock)
    : folder_(std::move(folder)), keep_(keep), clock_(clock) {
  if (folder_.empty() || !std::filesystem::create_directories(folder_)) return;
  std::filesystem::permissions(folder_, std::filesystem::perms::owner_all);
}

bool PayloadStore::Add(const AcceptedPayload& payload, const std::function<void()>& on_accepted) {
  const std::lock_guard lock(mutex_);
  const auto header = payload.headers.find("z-reqid");
  const std::string request_id = header == payload.headers.end() ? "" : header->second;
  ForgetOld();
  if (known_ids_.contains(request_id)) return false;
  const std::string file = folder_.empty() ? "" : WriteFile(payload);
  if (!request_id.empty()) Remember(request_id);
  if (keep_) payloads_.emplace_back(payload).file = file;
  if (on_accepted) on_accepted();
  return true;
}

void PayloadStore::Remember(const std::string& request_id) {
  if (known_.size() == kMaxKnown) ForgetOldest();
  known_.push_back({request_id, clock_.SteadyNow()});
  known_ids_.insert(request_id);
}

void PayloadStore::ForgetOld() {
  const auto oldest = clock_.SteadyNow() - kMemory;
  while (!known_.empty() && known_.front().since < oldest) ForgetOldest();
}

void PayloadStore::ForgetOldest() {
  known_ids_.erase(known_.front().request_id);
  known_.pop_front();
}

// Numbers of an earlier run are stepped over; whoever reads the folder sees whole files only.
std::string PayloadStore::WriteFile(const AcceptedPayload& payload) {
  const bool json = !payload.text.empty() && payload.text.front() == '{';
  const std::string partial = folder_ + "/.payload.part";
  {
    unlink(partial.c_str());  // of a run that was killed; what somebody else has put there is not written through
    const UniqueFd fd(open(partial.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!fd) throw std::runtime_error("Cannot open " + partial + ": " + ErrnoText(errno));
    WriteAll(fd.Get(), payload.text, partial);
  }
  while (true) {
    char name[32];
    std::snprintf(name, sizeof(name), "/payload-%06u.%s", next_number_++, json ? "json" : "bin");
    std::string path = folder_ + name;
    if (link(partial.c_str(), path.c_str()) == 0) {
      unlink(partial.c_str());
      return path;
    }
    if (errno != EEXIST) throw std::runtime_error("Cannot make " + path + ": " + ErrnoText(errno));
  }
}

std::vector<AcceptedPayload> PayloadStore::Payloads() const {
  const std::lock_guard lock(mutex_);
  return payloads_;
}

}  // namespace zagent::tools
