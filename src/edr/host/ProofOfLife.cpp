#include "src/edr/host/ProofOfLife.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "common/src/util/Log.h"

namespace zagent::edr::host {

ProofOfLife::ProofOfLife(Ports ports, audit::AuditNetlink& netlink, std::uint32_t consumer_pid,
                         common::util::Clock& clock)
    : ports_(std::move(ports)),
      clock_(clock),
      consumer_pid_(consumer_pid),
      probe_(netlink),
      next_(clock.SteadyNow() + kInterval),
      next_warning_(next_) {}

void ProofOfLife::RunWhenDue() {
  const SteadyTime now = clock_.SteadyNow();
  switch (step_) {
    case Step::Rest:
      if (heard_ && !silence_.empty()) OnHeard();  // late, but it speaks
      if (now >= next_) Begin(now);
      break;
    case Step::Await:
      Await(now);
      break;
    case Step::AwaitStatus:
      AwaitStatus(now);
      break;
  }
}

void ProofOfLife::Begin(SteadyTime now) {
  next_ = now + kInterval;
  step_ = Step::Rest;
  heard_ = false;
  losses_ = ports_.losses();
  if (!ports_.touch()) {
    TellThatThereIsNone(now);
    return;
  }
  ZLOG_DEBUG("Proof of life: waiting for the event");
  step_ = Step::Await;
  last_look_ = now;
  was_idle_ = false;
  idle_time_ = std::chrono::nanoseconds::zero();
}

void ProofOfLife::TellThatThereIsNone(SteadyTime now) {
  const bool is_news = now >= next_warning_;
  if (is_news) next_warning_ = now + kWarningInterval;
  ZLOG_AT(is_news ? Poco::Message::PRIO_WARNING : Poco::Message::PRIO_DEBUG,
          "Proof of life: there is nobody to give one: audit may fall silent unnoticed");
}

void ProofOfLife::Await(SteadyTime now) {
  if (heard_) return OnHeard();
  const bool is_idle = ports_.is_idle();
  if (is_idle && was_idle_) idle_time_ += std::min<std::chrono::nanoseconds>(now - last_look_, kMaxStep);
  was_idle_ = is_idle;
  last_look_ = now;
  if (idle_time_ < kPatience) return;
  step_ = Step::AwaitStatus;
  answer_deadline_ = now + kAnswerTime;
  probe_.Ask();
}

void ProofOfLife::AwaitStatus(SteadyTime now) {
  if (heard_) return OnHeard();
  const std::optional<audit::AuditStatus> status = probe_.Poll();
  if (status || now >= answer_deadline_) OnMissing(now, status);
}

void ProofOfLife::OnHeard() {
  ZLOG_DEBUG("Proof of life: the event has come");
  step_ = Step::Rest;
  if (silence_.empty()) return;
  ZLOG_INFO("Proof of life: audit speaks again");
  silence_.clear();
  ports_.silence(silence_);
}

// Once a silence and cause: who has been told need not be told every ten minutes.
void ProofOfLife::OnMissing(SteadyTime now, const std::optional<audit::AuditStatus>& status) {
  if (ports_.losses() != losses_) return Begin(now);
  step_ = Step::Rest;
  std::string why = Explain(status);
  if (why == silence_) return;
  ZLOG_WARNING("Proof of life: audit is silent: " << why);
  silence_ = std::move(why);
  ports_.silence(silence_);
  try {
    ports_.install_rules();
  } catch (const std::exception& error) {
    ZLOG_ERROR("Proof of life: Failed to install the rules anew: " << error.what());
  }
}

std::string ProofOfLife::Explain(const std::optional<audit::AuditStatus>& status) const {
  if (!status) return "no event came, and the kernel does not tell its status";
  if (status->enabled == 0) return "audit is switched off";
  if (status->consumer_pid == 0) return "nobody receives the kernel's records";
  if (consumer_pid_ != 0 && status->consumer_pid != consumer_pid_) {
    return "process " + std::to_string(status->consumer_pid) + " receives the kernel's records";
  }
  return "no event came, though audit is on: a rule in front of the program's may hold them back";
}

}  // namespace zagent::edr::host
