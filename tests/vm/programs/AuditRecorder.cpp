// audit-recorder: writes down what the kernel's audit says, as the only consumer receives it.
//
//   audit-recorder SET FILE    installs the rules of SET, appends each record as a line to FILE until SIGTERM, and
//                              removes the rules; prints "recording" when the rules are in force
//   audit-recorder mark TEXT   sends a user message, which stands as type=TEST between the records of two steps
//
// SET is one of
//   processes    starts, ends and sockets of every process, by programs of 64 and of 32 bits
//   files        everything that changes below /srv/w: the watch, the calls that no watch permission covers, io_uring
//   uring-enter  as files, with io_uring_enter itself audited
//
// Lines have the daemon's own form: type=NAME msg=audit(seconds.milliseconds:serial): fields.
#include <libaudit.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

volatile sig_atomic_t stopping = 0;

void Check(int result, const std::string& what) {
  if (result < 0) throw std::runtime_error(what + ": " + strerror(errno != 0 ? errno : -result));
}

// A rule filled by hand: libaudit's parser of rules keeps its state in globals, and knows no list of io_uring
// operations.
class Rule {
 public:
  Rule(int list, const std::vector<int>& calls) : list_(list) {
    for (const int call : calls) head_.mask[AUDIT_WORD(call)] |= AUDIT_BIT(call);
    if (calls.empty()) std::fill(std::begin(head_.mask), std::end(head_.mask), ~0U);
  }
  Rule With(unsigned field, unsigned value, unsigned compare = AUDIT_EQUAL) && {
    head_.fields[head_.field_count] = field;
    head_.fieldflags[head_.field_count] = compare;
    head_.values[head_.field_count++] = value;
    return std::move(*this);
  }
  Rule With(unsigned field, const std::string& text) && {
    texts_ += text;
    return std::move(*this).With(field, static_cast<unsigned>(text.size()));
  }

  void Add(int fd) const { Check(audit_add_rule_data(fd, Data().get(), list_, AUDIT_ALWAYS), "add a rule"); }
  void Delete(int fd) const { audit_delete_rule_data(fd, Data().get(), list_, AUDIT_ALWAYS); }

 private:
  struct Free {
    void operator()(audit_rule_data* data) const { free(data); }
  };
  [[nodiscard]] std::unique_ptr<audit_rule_data, Free> Data() const {
    void* memory = malloc(sizeof(head_) + texts_.size());
    if (memory == nullptr) throw std::bad_alloc();
    std::unique_ptr<audit_rule_data, Free> data(static_cast<audit_rule_data*>(memory));
    *data = head_;
    data->buflen = static_cast<unsigned>(texts_.size());
    memcpy(data->buf, texts_.data(), texts_.size());
    return data;
  }

  int list_;
  std::string texts_;       // of the fields that are text, one behind the other
  audit_rule_data head_{};  // the last member: it ends in the texts' place
};

Rule Calls64(const std::vector<int>& calls) {
  return Rule(AUDIT_FILTER_EXIT, calls).With(AUDIT_ARCH, AUDIT_ARCH_X86_64);
}

std::vector<Rule> ProcessRules() {
  std::vector<Rule> rules;
  // execve, execveat, clone, clone3, fork, vfork, exit_group, connect, bind
  rules.push_back(Calls64({59, 322, 56, 435, 57, 58, 231, 42, 49}).With(AUDIT_FILTERKEY, "processes"));
  // The same as 32-bit programs number them, and socketcall, which stands for both socket calls.
  rules.push_back(Rule(AUDIT_FILTER_EXIT, {11, 358, 120, 435, 2, 190, 252, 362, 361, 102})
                      .With(AUDIT_ARCH, AUDIT_ARCH_I386)
                      .With(AUDIT_FILTERKEY, "processes-32"));
  return rules;
}

std::vector<Rule> FileRules() {
  const std::string folder = "/srv/w";
  constexpr unsigned kNobody = ~0U;
  std::vector<Rule> rules;
  rules.push_back(Rule(AUDIT_FILTER_EXIT, {})
                      .With(AUDIT_DIR, folder)
                      .With(AUDIT_PERM, AUDIT_PERM_WRITE | AUDIT_PERM_ATTR)
                      .With(AUDIT_FILTERKEY, "changes"));
  rules.push_back(Rule(AUDIT_FILTER_EXIT, {})
                      .With(AUDIT_DIR, folder)
                      .With(AUDIT_PERM, AUDIT_PERM_READ)
                      .With(AUDIT_LOGINUID, kNobody, AUDIT_NOT_EQUAL)
                      .With(AUDIT_FILTERKEY, "reads"));
  // utime, utimes, futimesat, utimensat, open_by_handle_at
  rules.push_back(Calls64({132, 235, 261, 280, 304}).With(AUDIT_DIR, folder).With(AUDIT_FILTERKEY, "times"));
  // open and openat with O_CREAT or O_TRUNC
  rules.push_back(
      Calls64({2}).With(AUDIT_DIR, folder).With(AUDIT_ARG1, 0x240, AUDIT_BIT_MASK).With(AUDIT_FILTERKEY, "open"));
  rules.push_back(
      Calls64({257}).With(AUDIT_DIR, folder).With(AUDIT_ARG2, 0x240, AUDIT_BIT_MASK).With(AUDIT_FILTERKEY, "openat"));
  // openat, openat2, renameat, unlinkat, mkdirat, symlinkat, linkat, fsetxattr, setxattr
  rules.push_back(Rule(AUDIT_FILTER_URING_EXIT, {18, 28, 35, 36, 37, 38, 39, 41, 42})
                      .With(AUDIT_DIR, folder)
                      .With(AUDIT_FILTERKEY, "uring"));
  return rules;
}

std::vector<Rule> RulesOf(const std::string& set) {
  if (set == "processes") return ProcessRules();
  std::vector<Rule> rules = FileRules();
  if (set == "uring-enter") {
    rules.push_back(Calls64({426}).With(AUDIT_FILTERKEY, "io_uring_enter"));
  } else if (set != "files") {
    throw std::runtime_error("no such set of rules: " + set);
  }
  return rules;
}

// The kernel's answer to each rule comes with the records; a refused rule is told, for kernels differ.
void WriteRecord(const audit_reply& reply, std::ostream& out) {
  if (reply.type == NLMSG_ERROR) {
    if (reply.error->error != 0) std::cerr << "the kernel refuses: " << strerror(-reply.error->error) << "\n";
    return;
  }
  const char* type = audit_msg_type_to_name(reply.type);
  if (type == nullptr || reply.type < AUDIT_FIRST_USER_MSG) return;
  std::string text(reply.message, strnlen(reply.message, static_cast<size_t>(reply.len)));
  std::replace(text.begin(), text.end(), '\n', ' ');
  out << "type=" << type << " msg=" << text << "\n" << std::flush;
}

void Record(const std::string& set, const std::string& file) {
  std::ofstream out(file, std::ios::app | std::ios::binary);
  const int fd = audit_open();
  Check(fd, "audit_open");
  Check(audit_set_backlog_limit(fd, 8192), "backlog limit");
  Check(audit_set_pid(fd, static_cast<uint32_t>(getpid()), WAIT_YES), "register");
  const std::vector<Rule> rules = RulesOf(set);
  for (const Rule& rule : rules) rule.Add(fd);
  std::cout << "recording" << std::endl;
  while (true) {
    pollfd ready{fd, POLLIN, 0};
    constexpr int kQuietMs = 200;
    const int count = poll(&ready, 1, kQuietMs);
    if (count == 0 && stopping) break;
    if (count <= 0) continue;
    audit_reply reply{};
    if (audit_get_reply(fd, &reply, GET_REPLY_NONBLOCKING, 0) > 0) WriteRecord(reply, out);
  }
  for (const Rule& rule : rules) rule.Delete(fd);
  audit_close(fd);
}

void Mark(const std::string& text) {
  const int fd = audit_open();
  Check(fd, "audit_open");
  Check(audit_log_user_message(fd, AUDIT_TEST, ("step: " + text).c_str(), "", "", "", 1), "send a message");
  audit_close(fd);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: audit-recorder processes|files|uring-enter FILE\n       audit-recorder mark TEXT\n";
    return 2;
  }
  try {
    signal(SIGTERM, [](int) { stopping = 1; });
    if (std::string(argv[1]) == "mark") {
      Mark(argv[2]);
    } else {
      Record(argv[1], argv[2]);
    }
    return 0;
  } catch (const std::exception& failure) {
    std::cerr << "audit-recorder: " << failure.what() << "\n";
    return 1;
  }
}
