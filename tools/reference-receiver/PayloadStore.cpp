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

PayloadStore::PayloadStore(std::string folder) : folder_(std::move(folder)) {
  if (!folder_.empty()) std::filesystem::create_directories(folder_);
}

void PayloadStore::Add(AcceptedPayload payload) {
  const std::lock_guard lock(mutex_);
  if (!folder_.empty()) payload.file = WriteFile(payload);
  payloads_.push_back(std::move(payload));
}

// Numbers of an earlier run are stepped over; whoever reads the folder sees whole files only.
std::string PayloadStore::WriteFile(const AcceptedPayload& payload) {
  const bool json = !payload.text.empty() && payload.text.front() == '{';
  const std::string partial = folder_ + "/.payload.part";
  {
    const UniqueFd fd(open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
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

void PayloadStore::CountRequest() {
  const std::lock_guard lock(mutex_);
  ++requests_;
  arrived_.notify_all();
}

unsigned PayloadStore::RequestCount() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

bool PayloadStore::WaitForRequests(unsigned count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, timeout, [&] { return requests_ >= count; });
}

}  // namespace zagent::tools
