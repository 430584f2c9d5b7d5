#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "src/ioc/config/Config.h"
#include "src/ioc/process/TtlProcessTree.h"
#include "src/ioc/protobuf/EventBuilder.h"
#include "src/ioc/protobuf/Messages.h"

namespace zagent::ioc::internal::protobuf {

// Starts and ends of processes; who acts is the parent.
class ProcessEvent final : public EventBuilder {
 public:
  // Whoever starts a process chooses its arguments, and must not make an event that the spool refuses: at most so many
  // bytes of them are told, and no more than half a spool file holds; "..." is the end of what is cut.
  static constexpr std::size_t kMaxArguments = std::size_t{32} * 1024;

  ProcessEvent(const TtlProcessTree& tree, const Config& config);
  ProcessEvent(const ProcessEvent&) = delete;
  ProcessEvent& operator=(const ProcessEvent&) = delete;
  ~ProcessEvent() override;

  [[nodiscard]] Report Build(const edr::Event& event) const override;
  // Frees what is remembered of the latest events. Reports stay what they are.
  void Forget() { actors_.Forget(); }

 private:
  using Message = com::ostrel::ioc::model::proto::event::ProcessEvent;

  [[nodiscard]] std::string ArgumentsText(const std::vector<std::string>& arguments) const;

  const TtlProcessTree& tree_;
  const Config& config_;
  mutable KnownActors actors_;
  mutable LatestSettings settings_;
  const std::unique_ptr<Message> message_;  // that of the event at hand, in the memory of the one before
};

}  // namespace zagent::ioc::internal::protobuf
