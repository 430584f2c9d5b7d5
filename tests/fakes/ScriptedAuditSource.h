#pragma once

#include <libaudit.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/src/util/UniqueFd.h"
#include "src/audit/channels/AuditNetlink.h"

namespace zagent::fakes {

// A kernel audit socket that says what a test scripts. Its descriptors are ends of one event counter, so a channel that
// waits on one wakes up for every scripted record.
class ScriptedAuditSource final : public audit::AuditNetlink {
 public:
  struct AddedRule {
    bool null = false;
    std::vector<unsigned char> bytes;
    int flags = 0;
    int action = 0;
  };

  // What the next calls answer: an errno, or 0 for success.
  int open_errno = 0, set_enabled_errno = 0, set_pid_errno = 0, add_rule_errno = 0, close_errno = 0;

  ScriptedAuditSource() : records_waiting_(eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK)) {
    if (!records_waiting_) throw std::runtime_error("eventfd failed");
  }

  // A record as the kernel sends it, text without its type: "audit(1700000000.123:45): item=0 ...".
  void Push(int type, const std::string& text) {
    {
      const std::lock_guard lock(mutex_);
      records_.emplace_back(type, text);
    }
    Wake();
  }
  // A wake-up whose reply fails with `error`.
  void PushFailure(int error) {
    {
      const std::lock_guard lock(mutex_);
      records_.emplace_back(-error, "");
    }
    Wake();
  }

  int Open() override {
    Call("Open");
    return Answer(open_errno, dup(records_waiting_.Get()));
  }
  int Close(int fd) override {
    Call("Close");
    close(fd);
    return Answer(close_errno, 0);
  }
  int SetEnabled(int, std::uint32_t enabled) override {
    Call("SetEnabled " + std::to_string(enabled));
    return Answer(set_enabled_errno, 1);
  }
  int SetPid(int, std::uint32_t pid) override {
    Call("SetPid " + std::to_string(pid));
    return Answer(set_pid_errno, 1);
  }
  int SetBacklogLimit(int, std::uint32_t) override { return Unexpected("SetBacklogLimit"); }
  int RequestStatus(int) override { return Unexpected("RequestStatus"); }
  int RequestRulesList(int) override { return Unexpected("RequestRulesList"); }
  int DeleteRule(int, audit_rule_data*, int, int) override { return Unexpected("DeleteRule"); }
  int AddRule(int, audit_rule_data* rule, int flags, int action) override {
    Call("AddRule");
    AddedRule added{rule == nullptr, {}, flags, action};
    if (rule != nullptr) {
      const auto* bytes = reinterpret_cast<const unsigned char*>(rule);
      added.bytes.assign(bytes, bytes + sizeof(audit_rule_data) + rule->buflen);
    }
    const std::lock_guard lock(mutex_);
    rules_.push_back(std::move(added));
    return Answer(add_rule_errno, 1);
  }
  int GetReply(int fd, audit_reply& reply) override {
    eventfd_t one = 0;
    if (eventfd_read(fd, &one) != 0) return -1;
    const std::lock_guard lock(mutex_);
    const auto [type, text] = records_.front();
    records_.pop_front();
    if (type < 0) {
      errno = -type;
      return -1;
    }
    const std::size_t length = std::min(text.size(), sizeof(reply.msg.data));
    std::memcpy(reply.msg.data, text.data(), length);
    // No NUL behind the text: the kernel sends none.
    if (length < sizeof(reply.msg.data)) reply.msg.data[length] = '#';
    reply.type = type;
    reply.len = static_cast<int>(length);
    reply.message = reply.msg.data;
    return reply.len;
  }
  bool WaitReadable(int, std::chrono::milliseconds) override { return Unexpected("WaitReadable") == 0; }

  // Every call but GetReply, with its argument: "Open", "SetPid 123".
  [[nodiscard]] std::vector<std::string> Calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
  }
  [[nodiscard]] int CountOf(const std::string& call) const {
    const std::vector<std::string> calls = Calls();
    return static_cast<int>(std::count(calls.begin(), calls.end(), call));
  }
  [[nodiscard]] std::vector<AddedRule> Rules() const {
    const std::lock_guard lock(mutex_);
    return rules_;
  }

 private:
  void Wake() const { eventfd_write(records_waiting_.Get(), 1); }
  void Call(const std::string& call) {
    const std::lock_guard lock(mutex_);
    calls_.push_back(call);
  }
  int Unexpected(const std::string& call) {
    Call(call);
    return Answer(ENOSYS, 0);
  }
  static int Answer(int error, int success) {
    if (error == 0) return success;
    errno = error;
    return -1;
  }

  mutable std::mutex mutex_;
  common::util::UniqueFd records_waiting_;
  std::deque<std::pair<int, std::string>> records_;
  std::vector<std::string> calls_;
  std::vector<AddedRule> rules_;
};

}  // namespace zagent::fakes
