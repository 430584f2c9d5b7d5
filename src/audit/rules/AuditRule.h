#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

struct audit_rule_data;

namespace zagent::audit::internal {

// One rule of the kernel's audit lists, in the form in which it is sent and listed: fields with operators and values,
// a syscall mask, and the texts of the string fields behind each other.
//
// The adding calls go through libaudit and answer false when it refuses. libaudit keeps state of its own between them
// (which syscalls, permissions and architecture were named last): one thread at a time.
class AuditRule {
 public:
  // IoUring: what programs let the kernel do for them through io_uring, since Linux 5.16. libaudit 3.0 does not know
  // it.
  enum class List : std::uint32_t { Exit = 4, Exclude = 5, IoUring = 7 };
  enum class Action : std::uint32_t { Never = 0, Always = 2 };

  // An empty rule.
  explicit AuditRule(List list = List::Exit, Action action = Action::Always);
  // A copy of what the kernel listed. Throws std::runtime_error "AuditRule: 'rule' is null or invalid" when it is
  // null or does not fit in `size` bytes.
  AuditRule(const audit_rule_data* rule, std::size_t size);
  AuditRule(AuditRule&&) noexcept = default;
  AuditRule& operator=(AuditRule&&) noexcept = default;
  AuditRule(const AuditRule&) = delete;
  AuditRule& operator=(const AuditRule&) = delete;
  ~AuditRule() = default;

  // Only on an empty rule: libaudit starts the rule anew, on all syscalls and with every permission. A trailing "/"
  // of a file's path is cut, the kernel refuses it.
  [[nodiscard]] bool WatchFile(const std::string& path);
  [[nodiscard]] bool WatchDirectory(const std::string& path);
  // AUDIT_PERM_* of a watch.
  [[nodiscard]] bool SetPermissions(std::uint32_t permissions);

  // The conditions alone, of what has no watch permission: the kernel compares the calls by their number. Once a rule.
  [[nodiscard]] bool LimitToFile(const std::string& path);
  [[nodiscard]] bool LimitToDirectory(const std::string& path);

  // "pid=17", "auid!=4294967295", "a0&65536", "arch=b64", "msgtype=EOE".
  [[nodiscard]] bool AddField(const std::string& field);
  [[nodiscard]] bool AddSyscall(const char* name);
  [[nodiscard]] bool AddAllSyscalls();
  // By number: an operation of the io_uring list, or a call that libaudit has no name for.
  [[nodiscard]] bool AddNumber(unsigned number);
  // Comes last. A key that WhyRefused objects to is refused.
  [[nodiscard]] bool AddKey(const std::string& key);

  // What is wrong with a key: it cannot be told apart from an operator, a list of keys, or does not fit. Null for a
  // good one.
  [[nodiscard]] static const char* WhyRefused(const std::string& key);

  [[nodiscard]] List GetList() const;
  [[nodiscard]] Action GetAction() const;
  // The text of the key field; empty without one.
  [[nodiscard]] std::string GetKey() const;
  // True for a rule with the condition "pid=<pid>".
  [[nodiscard]] bool IsForPid(std::int32_t pid) const;
  // True for a rule whose one and only condition is this message type, on the exclude list.
  [[nodiscard]] bool IsMessageTypeExclusion(std::uint32_t message_type) const;

  // Equal for two rules that are one to the kernel, such as a rule and what the kernel lists of it.
  [[nodiscard]] std::string Identity() const;

  [[nodiscard]] audit_rule_data* Get() { return rule_.get(); }

 private:
  struct Free {
    void operator()(audit_rule_data* rule) const;
  };

  bool Watch(int type, const std::string& path);
  bool AddText(std::uint32_t field, const std::string& text);
  bool AddPair(const std::string& pair, int syscall_added);

  std::unique_ptr<audit_rule_data, Free> rule_;  // from malloc: libaudit reallocates it
};

}  // namespace zagent::audit::internal
