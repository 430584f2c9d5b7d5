#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <vector>

#include "src/edr/Event.h"
#include "src/edr/process/ImageInfo.h"

namespace zagent::common {

class ProcessInfoException : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One live process of the process tree. Belongs to the thread of its tree.
class ProcessInfo {
 public:
  static constexpr std::int32_t kNoParent = -1;

  // Throws ProcessInfoException "ProcesInfo: pid cannot be negative". A ppid equal to the pid is stored as kNoParent.
  ProcessInfo(std::int32_t pid, std::int32_t ppid);
  ProcessInfo(const ProcessInfo&) = delete;
  ProcessInfo& operator=(const ProcessInfo&) = delete;
  virtual ~ProcessInfo() = default;

  [[nodiscard]] virtual const std::vector<std::string>& GetArguments() const = 0;
  [[nodiscard]] virtual std::uint32_t GetAuid() const = 0;
  [[nodiscard]] virtual const std::string& GetCwd() const = 0;
  [[nodiscard]] virtual std::uint32_t GetEuid() const = 0;
  [[nodiscard]] virtual const ImageInfo* GetImage() const = 0;
  [[nodiscard]] virtual const ImageInfo* GetSecondaryImage() const = 0;
  [[nodiscard]] virtual std::int64_t GetCreationTime() const = 0;  // ns since the epoch
  [[nodiscard]] virtual std::uint32_t GetUserId() const = 0;
  [[nodiscard]] virtual bool HasSecondaryImage() const = 0;
  virtual void Update(const edr::Event& event) = 0;

  [[nodiscard]] const std::unordered_set<std::int32_t>& GetChildren() const { return children_; }
  [[nodiscard]] std::int32_t GetPid() const { return pid_; }
  [[nodiscard]] std::int32_t GetParent() const { return ppid_; }

  // When the kernel made the process, in nanoseconds since the boot (ReadStartSinceBoot): tells it from a later one of
  // the same pid, which the creation time cannot where that is the time of an event. Nothing when it was gone before
  // anybody looked.
  [[nodiscard]] std::optional<std::int64_t> GetStartSinceBoot() const { return start_since_boot_; }
  void SetStartSinceBoot(std::optional<std::int64_t> start) { start_since_boot_ = start; }

  void SetPid(std::int32_t pid);
  // Throws ProcessInfoException when ppid equals the pid.
  void SetParent(std::int32_t ppid);
  void AddChild(std::int32_t pid);
  void RemoveChild(std::int32_t pid);

 private:
  std::unordered_set<std::int32_t> children_;
  std::int32_t pid_;
  std::int32_t ppid_;
  std::optional<std::int64_t> start_since_boot_;
};

}  // namespace zagent::common
