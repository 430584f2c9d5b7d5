#include "src/edr/host/LifeSign.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <utility>

#include "common/src/util/ErrnoText.h"
#include "common/src/util/Log.h"
#include "common/src/util/UniqueFd.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::edr::host {
namespace {

using common::util::ErrnoText;

constexpr mode_t kFileMode = 0600;

class FileRule final : public edr::EventRule {
 public:
  explicit FileRule(std::string path) : path_(std::move(path)) {}

  [[nodiscard]] const edr::EventTypes& GetDirectoryActions() const override { Refuse(); }
  [[nodiscard]] const edr::EventTypes& GetFileActions() const override { return actions_; }
  [[nodiscard]] const edr::EventTypes& GetProcessActions() const override { Refuse(); }
  [[nodiscard]] const edr::EventTypes& GetNetworkActions() const override { Refuse(); }
  [[nodiscard]] const std::string& GetId() const override { return id_; }
  [[nodiscard]] const std::string& GetName() const override { return id_; }
  [[nodiscard]] const std::string& GetPath() const override { return path_; }
  [[nodiscard]] edr::ObjectType GetType() const override { return edr::ObjectType::File; }
  [[nodiscard]] edr::MatchResult Match(const edr::Event& /*event*/) const override {
    return edr::MatchResult::OutOfScope;
  }

 private:
  [[noreturn]] static void Refuse() { throw edr::EventRuleException("A rule of a file has no such actions"); }

  const std::string id_ = LifeSign::kRuleId;
  const std::string path_;
  const edr::EventTypes actions_{edr::EventType::Create, edr::EventType::Write};
};

}  // namespace

// Between fork and _exit nothing may be called that takes a lock: another thread may have held it. A pipe in the place
// of the file must not hold up who opens it.
int LifeSign::OpenForWriting(const char* path) {
  return open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kFileMode);
}

LifeSign::LifeSign(const std::string& directory, edr::EventRuleEngine& engine, Open open)
    : path_((directory.ends_with('/') ? directory : directory + "/") + kFileName),
      engine_(engine),
      rule_(std::make_shared<const FileRule>(path_)),
      open_in_child_(open) {
  engine_.RegisterEventHandlers(
      kTag, [](const auto&, const edr::Event&) {}, [this] { AddRule(); });
  AddRule();
}

LifeSign::~LifeSign() {
  if (HasChild()) kill(child_, SIGKILL);
  try {
    engine_.UnregisterEventHandlers(kTag);
    engine_.AddRules(kTag, {});
  } catch (const std::exception& error) {
    ZLOG_ERROR("Proof of life: " << error.what());
  }
}

bool LifeSign::MakeFile() const {
  const common::util::UniqueFd file(OpenForWriting(path_.c_str()));
  if (!file) ZLOG_ERROR("Proof of life: Failed to make " << path_ << ": " << ErrnoText(errno));
  return static_cast<bool>(file);
}

void LifeSign::AddRule() {
  has_rule_ = false;
  if (!MakeFile()) return;
  try {
    engine_.AddRules(kTag, {rule_});
    has_rule_ = true;
  } catch (const std::exception& error) {
    ZLOG_ERROR("Proof of life: Failed to watch " << path_ << ": " << error.what());
  }
}

bool LifeSign::HasChild() {
  if (child_ != 0 && waitpid(child_, nullptr, WNOHANG) != 0) child_ = 0;
  return child_ != 0;
}

bool LifeSign::Give() {
  if (HasChild()) return false;
  if (!has_rule_) AddRule();
  if (!has_rule_ || !MakeFile()) return false;
  const pid_t child = fork();
  if (child == 0) _exit(open_in_child_(path_.c_str()) < 0 ? 1 : 0);
  if (child < 0) {
    ZLOG_DEBUG("Proof of life: Failed to make a process: " << ErrnoText(errno));
    return false;
  }
  child_ = child;
  return true;
}

bool LifeSign::IsSign(const edr::Event& event) const {
  if (event.GetObjectType() != edr::ObjectType::File) return false;
  const common::ImageInfo* file = event.GetFile();
  return event.GetAuditKey() == kRuleId || (file != nullptr && file->GetPath() == path_);
}

}  // namespace zagent::edr::host
