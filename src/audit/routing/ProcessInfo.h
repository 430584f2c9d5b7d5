#pragma once

#include <string>
#include <vector>

#include "common/src/util/DeepPtr.h"
#include "src/edr/Event.h"
#include "src/edr/process/ImageInfo.h"
#include "src/edr/process/ProcessInfo.h"
#include "src/edr/process/ProcessTree.h"

namespace zagent::audit {

// A process as an event tells of it.
class ProcessInfo final : public common::ProcessInfo {
 public:
  // The actor of the event. Its program is looked at on the disk; where another file or none is in its place, it is
  // what the event knows of it, or what `tree` has of a parent that runs the same. The time is the event's, and of a
  // process that only starts another program the one that `tree` has. Throws common::ProcessInfoException for a process
  // event that is neither start nor clone, and when nothing but the name of the program is known.
  ProcessInfo(const edr::Event& event, const common::ProcessTree& tree);

  [[nodiscard]] const std::vector<std::string>& GetArguments() const override { return arguments_; }
  [[nodiscard]] std::uint32_t GetAuid() const override { return auid_; }
  [[nodiscard]] const std::string& GetCwd() const override { return cwd_; }
  [[nodiscard]] std::uint32_t GetEuid() const override { return euid_; }
  [[nodiscard]] const common::ImageInfo* GetImage() const override { return &image_; }
  // Null for all but a script.
  [[nodiscard]] const common::ImageInfo* GetSecondaryImage() const override { return script_.Find(); }
  [[nodiscard]] std::int64_t GetCreationTime() const override { return creation_time_; }
  [[nodiscard]] std::uint32_t GetUserId() const override { return uid_; }
  [[nodiscard]] bool HasSecondaryImage() const override { return script_.Find() != nullptr; }
  // Throws common::ProcessInfoException.
  void Update(const edr::Event& event) override;

 private:
  std::vector<std::string> arguments_;
  std::uint32_t auid_;
  std::string cwd_;
  std::uint32_t euid_;
  common::ImageInfo image_;
  common::util::DeepPtr<common::ImageInfo> script_;
  std::int64_t creation_time_;  // ns since the epoch
  std::uint32_t uid_;
};

}  // namespace zagent::audit
