#pragma once

#include <libaudit.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "src/audit/channels/AuditNetlink.h"

namespace zagent::fakes {

// What stands in the bytes of one audit_rule_data.
struct SeenRule {
  struct Field {
    std::uint32_t field, op, value;
    std::string text;  // of a string field
    bool operator==(const Field&) const = default;
  };

  std::uint32_t flags = 0, action = 0;
  std::vector<std::uint32_t> mask;
  std::vector<Field> fields;

  SeenRule() = default;
  explicit SeenRule(const audit_rule_data& rule) : flags(rule.flags), action(rule.action) {
    mask.assign(rule.mask, rule.mask + AUDIT_BITMASK_SIZE);
    std::size_t offset = 0;
    for (std::uint32_t i = 0; i < rule.field_count; ++i) {
      Field seen{rule.fields[i], rule.fieldflags[i], rule.values[i], ""};
      if (seen.field == AUDIT_WATCH || seen.field == AUDIT_DIR || seen.field == AUDIT_FILTERKEY) {
        seen.text.assign(&rule.buf[offset], seen.value);
        offset += seen.value;
      }
      fields.push_back(seen);
    }
  }
  bool operator==(const SeenRule&) const = default;

  [[nodiscard]] const Field* Find(std::uint32_t field) const {
    const auto found = std::find_if(fields.begin(), fields.end(), [&](const Field& f) { return f.field == field; });
    return found == fields.end() ? nullptr : &*found;
  }
  [[nodiscard]] std::string Text(std::uint32_t field) const { return Find(field) ? Find(field)->text : ""; }
  [[nodiscard]] std::string Key() const { return Text(AUDIT_FILTERKEY); }
  [[nodiscard]] std::string Path() const { return Find(AUDIT_WATCH) ? Text(AUDIT_WATCH) : Text(AUDIT_DIR); }
  [[nodiscard]] std::uint32_t Permissions() const { return Find(AUDIT_PERM) ? Find(AUDIT_PERM)->value : 0; }
  [[nodiscard]] bool HasSyscall(unsigned number) const { return (mask[number / 32] & (1U << (number % 32))) != 0; }
  // Without the last word: the kernel reads half of it as names of whole classes of calls.
  [[nodiscard]] bool HasAllSyscalls() const {
    return std::all_of(mask.begin(), mask.end() - 1, [](std::uint32_t word) { return word == ~0U; });
  }
  [[nodiscard]] std::size_t SyscallCount() const {
    std::size_t count = 0;
    for (const std::uint32_t word : mask) count += static_cast<std::size_t>(__builtin_popcount(word));
    return count;
  }
};

// The audit side of a kernel as far as rules go: keeps a rule list and answers as the real one does. Looks at the real
// file system for watched paths, as the kernel does. A test bends single answers with the public members.
class FakeAuditNetlink final : public audit::AuditNetlink {
 public:
  std::uint32_t backlog_limit = 64;
  // The rest of what it tells as its status.
  std::uint32_t enabled = 1, consumer_pid = 0, lost = 0;
  // Bytes at the end of a status that this kernel leaves out.
  std::size_t status_cut = 0;
  // errno of a call's failure; 0: none.
  int open_error = 0, request_error = 0, backlog_error = 0;
  // Number of Open calls that still succeed before open_error counts.
  int opens_before_error = 0;
  // errno for an added or deleted rule; 0 lets the kernel decide.
  std::function<int(const SeenRule&)> refuse_add, refuse_delete;
  // Before the answer to each request comes EAGAIN, this many times.
  int eagain_before_answers = 0;
  // Acknowledgements (type 2 without error) before, between and after the rows.
  bool stray_acknowledgements = false;
  // Messages of this type in front of the answer.
  int foreign_type = 0, foreign_count = 0;
  // The kernel's word on a request, after it was sent.
  int refusal = 0;
  bool leaves_out_done = false;
  bool answers_nothing = false;
  bool takes_io_uring = true;  // since Linux 5.16
  int reply_error = 0;

  std::vector<std::string> calls;  // "add <key>", "delete <key>", "set backlog <limit>"

  [[nodiscard]] std::vector<SeenRule> Rules() const {
    std::vector<SeenRule> seen;
    for (const Bytes& rule : rules_) seen.emplace_back(*Data(rule));
    return seen;
  }
  [[nodiscard]] std::vector<SeenRule> RulesWithKey(const std::string& key) const {
    std::vector<SeenRule> seen = Rules();
    std::erase_if(seen, [&](const SeenRule& rule) { return rule.Key() != key; });
    return seen;
  }
  [[nodiscard]] std::size_t OpenDescriptors() const { return replies_.size(); }
  [[nodiscard]] int OpenCount() const { return next_fd_ - kFirstFd; }
  [[nodiscard]] int Waits() const { return waits_; }

  int Open() override {
    if (open_error != 0 && opens_before_error-- <= 0) return Fail(open_error);
    replies_[next_fd_];
    return next_fd_++;
  }
  int Close(int fd) override { return replies_.erase(fd) == 1 ? 0 : Fail(EBADF); }
  int SetEnabled(int fd, std::uint32_t) override { return Known(fd) ? ++sequence_ : Fail(EBADF); }
  int SetPid(int fd, std::uint32_t pid) override {
    if (!Known(fd)) return Fail(EBADF);
    consumer_pid = pid;
    return ++sequence_;
  }

  int SetBacklogLimit(int fd, std::uint32_t limit) override {
    calls.push_back("set backlog " + std::to_string(limit));
    if (!Known(fd)) return Fail(EBADF);
    if (backlog_error != 0) return Fail(backlog_error);
    backlog_limit = limit;
    return ++sequence_;
  }

  int RequestStatus(int fd) override {
    if (!BeginAnswer(fd)) return -1;
    audit_status status{};
    status.backlog_limit = backlog_limit;
    status.enabled = enabled;
    status.pid = consumer_pid;
    status.lost = lost;
    Queue(fd, AUDIT_GET, &status, sizeof(status) - status_cut);
    return ++sequence_;
  }

  int RequestRulesList(int fd) override {
    if (!BeginAnswer(fd)) return -1;
    for (const Bytes& rule : rules_) {
      Queue(fd, AUDIT_LIST_RULES, rule.data(), rule.size());
      QueueStrayAcknowledgement(fd);
    }
    if (!leaves_out_done) Queue(fd, NLMSG_DONE, nullptr, 0);
    QueueStrayAcknowledgement(fd);
    return ++sequence_;
  }

  int AddRule(int fd, audit_rule_data* rule, int flags, int action) override {
    rule->flags = static_cast<std::uint32_t>(flags);
    rule->action = static_cast<std::uint32_t>(action);
    const SeenRule seen(*rule);
    calls.push_back("add " + seen.Key());
    if (!Known(fd)) return Fail(EBADF);
    if (const int error = refuse_add ? refuse_add(seen) : 0; error != 0) return Refuse(fd, error);
    if (const int error = Objection(seen); error != 0) return Refuse(fd, error);
    // A rule to be put in front differs from its listed twin by that flag: the kernel takes it twice.
    if (Find(*rule) != rules_.end()) return Refuse(fd, EEXIST);
    const bool in_front = (rule->flags & AUDIT_FILTER_PREPEND) != 0;
    Bytes bytes = Copy(*rule);
    Data(bytes)->flags &= ~static_cast<std::uint32_t>(AUDIT_FILTER_PREPEND);
    rules_.insert(in_front ? rules_.begin() : rules_.end(), std::move(bytes));
    return ++sequence_;
  }

  int DeleteRule(int fd, audit_rule_data* rule, int flags, int action) override {
    rule->flags = static_cast<std::uint32_t>(flags);
    rule->action = static_cast<std::uint32_t>(action);
    const SeenRule seen(*rule);
    calls.push_back("delete " + seen.Key());
    if (!Known(fd)) return Fail(EBADF);
    if (const int error = refuse_delete ? refuse_delete(seen) : 0; error != 0) return Refuse(fd, error);
    const auto found = Find(*rule);
    if (found == rules_.end()) return Refuse(fd, ENOENT);
    rules_.erase(found);
    return ++sequence_;
  }

  int GetReply(int fd, audit_reply& reply) override {
    if (!Known(fd)) return Fail(EBADF);
    if (reply_error != 0) return Fail(reply_error);
    std::deque<Message>& queue = replies_[fd];
    if (queue.empty() || answers_nothing) return Fail(EAGAIN);
    const Message message = std::move(queue.front());
    queue.pop_front();
    if (message.type == kEagain) return Fail(EAGAIN);
    reply = {};
    reply.type = message.type;
    reply.len = static_cast<int>(NLMSG_HDRLEN + message.payload.size());
    reply.nlh = &reply.msg.nlh;
    std::copy(message.payload.begin(), message.payload.end(), reply.msg.data);
    if (message.type == AUDIT_GET) reply.status = reinterpret_cast<audit_status*>(reply.msg.data);
    if (message.type == AUDIT_LIST_RULES) reply.ruledata = reinterpret_cast<audit_rule_data*>(reply.msg.data);
    if (message.type == NLMSG_ERROR) reply.error = reinterpret_cast<nlmsgerr*>(reply.msg.data);
    return reply.len;
  }

  bool WaitReadable(int fd, std::chrono::milliseconds) override {
    ++waits_;
    return Known(fd) && !replies_[fd].empty();
  }

 private:
  using Bytes = std::vector<char>;
  struct Message {
    int type;
    Bytes payload;
  };

  static constexpr std::uint32_t kIoUringList = 7;
  static constexpr int kFirstFd = 1000;
  static constexpr int kEagain = -1;

  static int Fail(int error) {
    errno = error;
    return -1;
  }
  // libaudit takes whatever waits on the descriptor for the kernel's answer, and anything but an error for consent.
  int Refuse(int fd, int error) {
    const std::deque<Message>& waiting = replies_[fd];
    const bool is_misread = std::any_of(waiting.begin(), waiting.end(),
                                        [](const Message& m) { return m.type != kEagain && m.type != NLMSG_ERROR; });
    return is_misread ? ++sequence_ : Fail(error);
  }
  static Bytes Copy(const audit_rule_data& rule) {
    const char* begin = reinterpret_cast<const char*>(&rule);
    return {begin, begin + sizeof(rule) + rule.buflen};
  }
  static const audit_rule_data* Data(const Bytes& bytes) {
    return reinterpret_cast<const audit_rule_data*>(bytes.data());
  }
  static audit_rule_data* Data(Bytes& bytes) { return reinterpret_cast<audit_rule_data*>(bytes.data()); }

  // What the kernel has against a folder; 0 for one that is there.
  static int ErrorOf(const std::string& path) {
    struct stat found {};
    if (stat(path.c_str(), &found) != 0) return errno;
    return S_ISDIR(found.st_mode) ? 0 : ENOTDIR;
  }

  // The kernel does not follow a link in the place of a folder.
  static bool IsLink(const std::string& path) {
    struct stat found {};
    return lstat(path.c_str(), &found) == 0 && S_ISLNK(found.st_mode);
  }

  // What the kernel has against a new rule: an errno, or 0.
  [[nodiscard]] int Objection(const SeenRule& rule) const {
    const std::uint32_t list = rule.flags & AUDIT_FILTER_MASK;
    const bool is_io_uring = takes_io_uring && list == kIoUringList;
    if (list != AUDIT_FILTER_EXIT && list != AUDIT_FILTER_EXCLUDE && !is_io_uring) return EINVAL;
    if (is_io_uring && rule.Find(AUDIT_PERM)) return EINVAL;
    if (list == AUDIT_FILTER_EXCLUDE && !rule.Find(AUDIT_MSGTYPE)) return EINVAL;
    if (list == AUDIT_FILTER_EXIT && rule.Find(AUDIT_MSGTYPE)) return EINVAL;
    if (rule.Find(AUDIT_DIR)) {
      const std::string folder = rule.Text(AUDIT_DIR);
      if (folder.empty() || folder.front() != '/') return EINVAL;
      if (!IsLink(folder)) return ErrorOf(folder);
    }
    if (rule.Find(AUDIT_WATCH)) {
      const std::string file = rule.Text(AUDIT_WATCH);
      if (file.empty() || file.front() != '/' || file.back() == '/') return EINVAL;
      return ErrorOf(file.substr(0, file.rfind('/') + 1));
    }
    return 0;
  }

  [[nodiscard]] bool Known(int fd) const { return replies_.count(fd) != 0; }

  std::vector<Bytes>::iterator Find(const audit_rule_data& rule) {
    return std::find_if(rules_.begin(), rules_.end(),
                        [&](const Bytes& known) { return SeenRule(*Data(known)) == SeenRule(rule); });
  }

  bool BeginAnswer(int fd) {
    if (!Known(fd)) return Fail(EBADF) == 0;
    if (request_error != 0) return Fail(request_error) == 0;
    for (int i = 0; i < eagain_before_answers; ++i) replies_[fd].push_back({kEagain, {}});
    if (refusal != 0) QueueAcknowledgement(fd, -refusal);
    QueueStrayAcknowledgement(fd);
    for (int i = 0; i < foreign_count; ++i) Queue(fd, foreign_type, nullptr, 0);
    return true;
  }

  void Queue(int fd, int type, const void* payload, std::size_t size) {
    const char* begin = static_cast<const char*>(payload);
    replies_[fd].push_back({type, size == 0 ? Bytes() : Bytes(begin, begin + size)});
  }
  void QueueAcknowledgement(int fd, int error) {
    nlmsgerr acknowledgement{};
    acknowledgement.error = error;
    Queue(fd, NLMSG_ERROR, &acknowledgement, sizeof(acknowledgement));
  }
  void QueueStrayAcknowledgement(int fd) {
    if (stray_acknowledgements) QueueAcknowledgement(fd, 0);
  }

  std::vector<Bytes> rules_;
  std::map<int, std::deque<Message>> replies_;  // by open descriptor
  int next_fd_ = kFirstFd;
  int sequence_ = 0;
  int waits_ = 0;
};

}  // namespace zagent::fakes
