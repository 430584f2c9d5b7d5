#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/edr/process/ProcessInfo.h"

namespace zagent::fakes {

// A process that is what a test says: of root, and of nothing but an image otherwise.
class FakeProcessInfo final : public common::ProcessInfo {
 public:
  FakeProcessInfo(std::int32_t pid, std::int32_t ppid, const std::string& image_path = "/bin/fake")
      : ProcessInfo(pid, ppid), image(image_path) {}

  [[nodiscard]] const std::vector<std::string>& GetArguments() const override { return arguments; }
  [[nodiscard]] std::uint32_t GetAuid() const override { return auid; }
  [[nodiscard]] const std::string& GetCwd() const override { return cwd; }
  [[nodiscard]] std::uint32_t GetEuid() const override { return euid; }
  [[nodiscard]] const common::ImageInfo* GetImage() const override { return image ? &*image : nullptr; }
  [[nodiscard]] const common::ImageInfo* GetSecondaryImage() const override { return script ? &*script : nullptr; }
  [[nodiscard]] std::int64_t GetCreationTime() const override { return creation_time; }
  [[nodiscard]] std::uint32_t GetUserId() const override { return uid; }
  [[nodiscard]] bool HasSecondaryImage() const override { return script.has_value(); }
  void Update(const edr::Event& /*event*/) override { throw std::runtime_error("Update is not implemented"); }

  std::vector<std::string> arguments;
  std::uint32_t auid = 0;
  std::uint32_t euid = 0;
  std::uint32_t uid = 0;
  std::string cwd;
  std::optional<common::ImageInfo> image;
  std::optional<common::ImageInfo> script;
  std::int64_t creation_time = 0;  // ns since the epoch
};

}  // namespace zagent::fakes
