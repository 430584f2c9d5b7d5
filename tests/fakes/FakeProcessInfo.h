#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "src/edr/process/ProcessInfo.h"

namespace zagent::fakes {

// A process of which only the image is known.
class FakeProcessInfo final : public common::ProcessInfo {
 public:
  FakeProcessInfo(std::int32_t pid, std::int32_t ppid, const std::string& image = "/bin/fake")
      : ProcessInfo(pid, ppid), image_(image) {}

  [[nodiscard]] const std::vector<std::string>& GetArguments() const override { return arguments_; }
  [[nodiscard]] std::uint32_t GetAuid() const override { return 0; }
  [[nodiscard]] const std::string& GetCwd() const override { return cwd_; }
  [[nodiscard]] std::uint32_t GetEuid() const override { return 0; }
  [[nodiscard]] const common::ImageInfo* GetImage() const override { return &image_; }
  [[nodiscard]] const common::ImageInfo* GetSecondaryImage() const override { return nullptr; }
  [[nodiscard]] std::int64_t GetCreationTime() const override { return 0; }
  [[nodiscard]] std::uint32_t GetUserId() const override { return 0; }
  [[nodiscard]] bool HasSecondaryImage() const override { return false; }
  void Update(const edr::Event& /*event*/) override { throw std::runtime_error("Update is not implemented"); }

 private:
  common::ImageInfo image_;
  std::vector<std::string> arguments_;
  std::string cwd_;
};

}  // namespace zagent::fakes
