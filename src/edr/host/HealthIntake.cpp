#include "src/edr/host/HealthIntake.h"

#include <array>
#include <utility>

namespace zagent::edr::host {
namespace {

using audit::IntakeCounters;
using health::State;
using Reason = IntakeCounters::Reason;

struct FieldOf {
  Reason reason;
  const char* name;
  bool is_loss;  // not by design
};

constexpr std::array<FieldOf, IntakeCounters::kReasonCount> kFields = {{
    {Reason::BytesAtBound, "queueDropped", true},
    {Reason::BytesAtStop, "bytesAtStop", true},
    {Reason::NotBuilt, "notBuilt", false},
    {Reason::UnsupportedCall, "unsupportedCall", false},
    {Reason::Unplaced, "unplaced", true},
    {Reason::LeftAtStop, "leftAtStop", true},
    {Reason::FileReplaced, "fileReplaced", false},
    {Reason::NotProcessed, "eventsDropped", true},
}};

std::uint64_t CountOf(const IntakeCounters::Snapshot& counts, Reason reason) {
  return counts.at(static_cast<std::size_t>(reason));
}

}  // namespace

HealthIntake::Losses HealthIntake::Losses::Since(const Losses& earlier) const {
  Losses since;
  since.kernel = kernel - earlier.kernel;
  since.refused = refused - earlier.refused;
  since.removed_files = removed_files - earlier.removed_files;
  since.removed_bytes = removed_bytes - earlier.removed_bytes;
  since.dropped = dropped - earlier.dropped;
  for (std::size_t i = 0; i < counts.size(); ++i) since.counts[i] = counts[i] - earlier.counts[i];
  return since;
}

bool HealthIntake::Losses::IsLoss() const {
  if (kernel != 0 || refused != 0 || removed_files != 0 || dropped != 0) return true;
  for (const FieldOf& field : kFields) {
    if (field.is_loss && CountOf(counts, field.reason) != 0) return true;
  }
  return false;
}

health::Fields HealthIntake::Losses::AsFields() const {
  health::Fields fields{{"kernelLost", static_cast<std::int64_t>(kernel)},
                        {"spoolRefused", static_cast<std::int64_t>(refused)},
                        {"spoolRemovedFiles", static_cast<std::int64_t>(removed_files)},
                        {"spoolRemovedBytes", static_cast<std::int64_t>(removed_bytes)},
                        {"componentDropped", static_cast<std::int64_t>(dropped)}};
  for (const FieldOf& field : kFields) {
    fields[field.name] = static_cast<std::int64_t>(CountOf(counts, field.reason));
  }
  return fields;
}

HealthIntake::HealthIntake(Sources sources, audit::AuditNetlink& netlink, health::HealthReporter& reporter,
                           common::util::Clock& clock)
    : sources_(std::move(sources)),
      reporter_(reporter),
      clock_(clock),
      probe_(netlink),
      told_since_(common::util::FormatUtc(common::util::ToNanoseconds(clock.Now()))) {
  Ask();
}

void HealthIntake::TellWhenDue() {
  const common::util::Clock::SteadyTime now = clock_.SteadyNow();
  if (!answer_deadline_ && now >= next_ask_) Ask();
  if (!answer_deadline_) return;
  const std::optional<audit::AuditStatus> status = probe_.Poll();
  if (!status && now < *answer_deadline_) return;
  answer_deadline_.reset();
  Judge(status);
}

void HealthIntake::Ask() {
  const common::util::Clock::SteadyTime now = clock_.SteadyNow();
  next_ask_ = now + kInterval;
  answer_deadline_ = now + kAnswerTime;
  probe_.Ask();
}

void HealthIntake::TellAtEnd() {
  Judge(std::nullopt);
  if (total_.Since(told_).IsLoss()) Report(State::Bad);
}

void HealthIntake::SetSilence(std::string why) {
  Set(silence_, std::move(why));
}

void HealthIntake::SetEnd(std::string cause) {
  Set(end_, std::move(cause));
}

void HealthIntake::Set(Condition& condition, std::string why) {
  if (why == condition.why) return;
  condition.why = std::move(why);
  if (condition.why.empty()) condition.told.clear();
  Judge(std::nullopt);
}

void HealthIntake::Judge(const std::optional<audit::AuditStatus>& status) {
  if (status) AddKernelLosses(*status);
  total_.refused = sources_.refused_documents();
  total_.removed_files = sources_.removed_files();
  total_.removed_bytes = sources_.removed_bytes();
  total_.dropped = sources_.dropped_events();
  total_.counts = sources_.counters.Take();
  const common::util::Clock::SteadyTime now = clock_.SteadyNow();
  const bool is_trouble = !silence_.why.empty() || !end_.why.empty() || total_.Since(seen_).IsLoss();
  seen_ = total_;
  if (is_trouble) last_trouble_ = now;
  const State state =
      is_trouble || (state_ == State::Bad && now < last_trouble_ + kQuietTime) ? State::Bad : State::Good;
  const bool has_more = state == State::Bad && total_.Since(told_).IsLoss() && now >= told_at_ + kQuietTime;
  const bool has_cause = silence_.why != silence_.told || end_.why != end_.told;
  if (state_ != state || has_more || has_cause) Report(state);
}

// What was lost before the program began is not its loss. A number that has become smaller was set to 0 meanwhile, or
// went round: it is what was lost since, as near as can be told.
void HealthIntake::AddKernelLosses(const audit::AuditStatus& status) {
  const std::uint32_t before = kernel_lost_.value_or(status.lost);
  total_.kernel += status.lost >= before ? status.lost - before : status.lost;
  kernel_lost_ = status.lost;
}

void HealthIntake::Report(State state) {
  health::HealthStatus status{health::StatusCode::Intake, "EDR", state, total_.Since(told_).AsFields(), {}};
  status.fields["since"] = told_since_;  // no status is like the one before, even if as much was lost again
  if (!silence_.why.empty()) status.fields["auditSilent"] = silence_.why;
  if (!end_.why.empty()) status.fields["intakeEnded"] = end_.why;
  reporter_.Report(std::move(status));
  state_ = state;
  silence_.told = silence_.why;
  end_.told = end_.why;
  told_ = total_;
  told_since_ = common::util::FormatUtc(common::util::ToNanoseconds(clock_.Now()));
  told_at_ = clock_.SteadyNow();
}

}  // namespace zagent::edr::host
