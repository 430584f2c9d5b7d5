#include "src/edr/host/IntakeWatch.h"

#include "common/src/util/Log.h"

namespace zagent::edr::host {

void IntakeWatch::OnEnded(const std::string& cause) {
  const std::lock_guard lock(mutex_);
  if (ended_) return;
  ended_ = true;
  cause_ = cause;
  ZLOG_ERROR("The audit intake has ended: " << cause);
  failures_.push_back(clock_.SteadyNow());
  while (failures_.size() > kMaxFailures || failures_.back() - failures_.front() >= kFailuresCountFor) {
    failures_.pop_front();
  }
}

bool IntakeWatch::HasEnded() const {
  const std::lock_guard lock(mutex_);
  return ended_;
}

std::string IntakeWatch::EndCause() const {
  const std::lock_guard lock(mutex_);
  return cause_;
}

IntakeWatch::Step IntakeWatch::NextStep() {
  const std::lock_guard lock(mutex_);
  if (!ended_ || !restarts_) return Step::Nothing;
  if (failures_.size() == kMaxFailures) return Step::GiveUp;
  return clock_.SteadyNow() - failures_.back() < kBeforeRestart ? Step::Nothing : Step::Restart;
}

void IntakeWatch::BeginRun() {
  const std::lock_guard lock(mutex_);
  ended_ = false;
  cause_.clear();
}

}  // namespace zagent::edr::host
