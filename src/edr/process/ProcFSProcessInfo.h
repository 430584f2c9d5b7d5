#pragma once

#include <string>
#include <vector>

#include "src/edr/process/ImageInfo.h"
#include "src/edr/process/ProcessInfo.h"

namespace zagent::common {

// A live process as procfs shows it now. A script is known by its interpreter: there is no secondary image.
class ProcFSProcessInfo final : public ProcessInfo {
 public:
  // Reads <proc_root>/<pid>: cmdline (the first 255 arguments of its first 128 KiB), cwd, exe, status and stat. A
  // thread id becomes the id of its process. `auid` is taken as given. Throws ProcessInfoException, "Failed to open
  // status for process with pid <pid>" and the like, when the process is not there or goes meanwhile, "Another process
  // got the pid <pid> meanwhile" when its start is not the same before and after. The working directory and the image,
  // which a kernel thread has not, may stay empty.
  ProcFSProcessInfo(std::int32_t pid, std::uint32_t auid, const std::string& proc_root = "/proc");

  [[nodiscard]] const std::vector<std::string>& GetArguments() const override { return arguments_; }
  [[nodiscard]] std::uint32_t GetAuid() const override { return auid_; }
  [[nodiscard]] const std::string& GetCwd() const override { return cwd_; }
  [[nodiscard]] std::uint32_t GetEuid() const override { return euid_; }
  [[nodiscard]] const ImageInfo* GetImage() const override { return &image_; }
  // Throws ProcessInfoException.
  [[nodiscard]] const ImageInfo* GetSecondaryImage() const override;
  // When it was made: a program that it started since changes nothing.
  [[nodiscard]] std::int64_t GetCreationTime() const override { return creation_time_; }
  [[nodiscard]] std::uint32_t GetUserId() const override { return uid_; }
  [[nodiscard]] bool HasSecondaryImage() const override { return false; }
  // Throws ProcessInfoException.
  void Update(const edr::Event& event) override;

 private:
  void ReadArguments(const std::string& folder);
  void ReadCwd(const std::string& folder);
  void ReadImage(const std::string& folder);
  void ReadStatus(const std::string& folder);
  void ReadUids(const std::string& line);
  void ReadStart(const std::string& proc_root);

  std::vector<std::string> arguments_;
  std::uint32_t auid_;
  std::string cwd_;
  std::uint32_t euid_ = 0;
  ImageInfo image_{""};
  std::int64_t creation_time_ = 0;  // ns since the epoch
  std::uint32_t uid_ = 0;
};

}  // namespace zagent::common
