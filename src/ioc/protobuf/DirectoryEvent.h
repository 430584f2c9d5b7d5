#pragma once

#include <string>

#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/protobuf/EventBuilder.h"

namespace zagent::ioc::internal::protobuf {

// Events of directories. The end of one is told only when the platform knows it.
class DirectoryEvent final : public EventBuilder {
 public:
  DirectoryEvent(const TtlProcessTree& tree, const ReportedObjects& reported) : tree_(tree), reported_(reported) {}

  [[nodiscard]] Report Build(const edr::Event& event) const override;

  // Adds a message that describes a directory as it is on disk now, without an action, because of an event in it: when
  // the platform does not know it. False when it is not there any more; nothing is added then. `id` is that of the
  // path.
  bool Describe(const edr::Event& event, const std::string& path, const std::string& id, Report& report) const;

 private:
  [[nodiscard]] bool IsReported(const std::string& id, const std::string& path) const;

  const TtlProcessTree& tree_;
  const ReportedObjects& reported_;
};

}  // namespace zagent::ioc::internal::protobuf
