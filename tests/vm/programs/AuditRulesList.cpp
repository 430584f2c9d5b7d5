// audit-rules: what the kernel's audit has in force, for tests and people in the guest.
//
//   audit-rules          the rules, one a line:   exit always dir=/srv/watched perm=wa key=rule-1
//   audit-rules status   one line:                enabled=1 pid=74 lost=0 backlog=0 backlog_limit=8192
#include <libaudit.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>

namespace {

// Calls `take` for each reply until it answers false, or the kernel has said its last word.
void ReadReplies(int fd, const std::function<bool(const audit_reply&)>& take) {
  constexpr int kPatienceMs = 5000;
  while (true) {
    pollfd ready{fd, POLLIN, 0};
    if (poll(&ready, 1, kPatienceMs) <= 0) throw std::runtime_error("the kernel does not answer");
    audit_reply reply{};
    const int result = audit_get_reply(fd, &reply, GET_REPLY_NONBLOCKING, 0);
    if (result == -EAGAIN || result == 0) continue;
    if (result < 0) throw std::runtime_error(strerror(-result));
    if (reply.type == NLMSG_ERROR && reply.error->error == 0) continue;  // an acknowledgement
    if (reply.type == NLMSG_ERROR) throw std::runtime_error(strerror(-reply.error->error));
    if (reply.type == NLMSG_DONE || !take(reply)) return;
  }
}

std::string PermissionText(unsigned bits) {
  std::string text;
  if (bits & AUDIT_PERM_READ) text += 'r';
  if (bits & AUDIT_PERM_WRITE) text += 'w';
  if (bits & AUDIT_PERM_EXEC) text += 'x';
  if (bits & AUDIT_PERM_ATTR) text += 'a';
  return text;
}

bool IsTextField(unsigned field) {
  switch (field) {
    case AUDIT_WATCH:
    case AUDIT_DIR:
    case AUDIT_FILTERKEY:
    case AUDIT_EXE:
    case AUDIT_SUBJ_USER:
    case AUDIT_SUBJ_ROLE:
    case AUDIT_SUBJ_TYPE:
    case AUDIT_OBJ_USER:
    case AUDIT_OBJ_ROLE:
    case AUDIT_OBJ_TYPE:
      return true;
    default:
      return false;
  }
}

constexpr int kIoUringList = 7;  // since Linux 5.16; libaudit 3.0 does not know it

std::string ListText(const audit_rule_data& rule) {
  if (rule.flags == kIoUringList) return "io_uring";
  const char* name = audit_flag_to_name(static_cast<int>(rule.flags));
  return name != nullptr ? name : std::to_string(rule.flags);
}

// Calls by name; operations of io_uring, and what libaudit has no name for, by number.
std::string SyscallText(const audit_rule_data& rule) {
  int count = 0;
  std::string names;
  for (int number = 0; number < AUDIT_BITMASK_SIZE * 32; ++number) {
    if ((rule.mask[AUDIT_WORD(number)] & AUDIT_BIT(number)) == 0) continue;
    const char* name = rule.flags == kIoUringList ? nullptr : audit_syscall_to_name(number, MACH_86_64);
    names += (count++ == 0 ? "" : ",") + (name != nullptr ? std::string(name) : std::to_string(number));
  }
  constexpr int kAsGoodAsAll = 300;
  if (count == 0) return "";
  return (rule.flags == kIoUringList ? " operations=" : " syscalls=") +
         (count > kAsGoodAsAll ? std::string("all") : names);
}

std::string RuleText(const audit_rule_data& rule) {
  std::string text = ListText(rule) + " " + audit_action_to_name(static_cast<int>(rule.action)) + SyscallText(rule);
  size_t offset = 0;  // text values stand one behind the other in rule.buf
  for (unsigned i = 0; i < rule.field_count; ++i) {
    const unsigned field = rule.fields[i];
    const char* name = audit_field_to_name(static_cast<int>(field));
    text += " " + (name != nullptr ? std::string(name) : std::to_string(field)) +
            audit_operator_to_symbol(static_cast<int>(rule.fieldflags[i]));
    if (IsTextField(field)) {
      if (offset + rule.values[i] > rule.buflen) throw std::runtime_error("malformed rule");
      text.append(rule.buf + offset, rule.values[i]);
      offset += rule.values[i];
    } else if (field == AUDIT_PERM) {
      text += PermissionText(rule.values[i]);
    } else if (field == AUDIT_ARCH && rule.values[i] == AUDIT_ARCH_X86_64) {
      text += "b64";
    } else if (field == AUDIT_LOGINUID && rule.values[i] == UINT32_MAX) {
      text += "unset";
    } else {
      text += std::to_string(rule.values[i]);
    }
  }
  return text;
}

// The kernel waits a tenth of a second for a reader whose buffer is full, and drops rules then: there is room for
// thousands of them.
void MakeRoom(int fd) {
  const int room = 64 << 20;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room)) != 0) throw std::runtime_error(strerror(errno));
}

void PrintRules(int fd) {
  MakeRoom(fd);
  if (audit_request_rules_list_data(fd) <= 0) throw std::runtime_error("cannot ask for the rules");
  ReadReplies(fd, [](const audit_reply& reply) {
    if (reply.type == AUDIT_LIST_RULES) std::cout << RuleText(*reply.ruledata) << "\n";
    return true;
  });
}

void PrintStatus(int fd) {
  if (audit_request_status(fd) <= 0) throw std::runtime_error("cannot ask for the status");
  ReadReplies(fd, [](const audit_reply& reply) {
    if (reply.type != AUDIT_GET) return true;
    const audit_status& status = *reply.status;
    std::cout << "enabled=" << status.enabled << " pid=" << status.pid << " lost=" << status.lost
              << " backlog=" << status.backlog << " backlog_limit=" << status.backlog_limit << "\n";
    return false;
  });
}

}  // namespace

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "rules";
  const int fd = audit_open();
  if (fd < 0) {
    std::cerr << "audit-rules: cannot open an audit socket: " << strerror(errno) << "\n";
    return 1;
  }
  int code = 0;
  try {
    if (what == "status") {
      PrintStatus(fd);
    } else {
      PrintRules(fd);
    }
  } catch (const std::exception& failure) {
    std::cerr << "audit-rules: " << failure.what() << "\n";
    code = 1;
  }
  audit_close(fd);
  return code;
}
