#include "src/fim/EventProcessor.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "common/src/storage/StorageResult.h"
#include "common/src/util/Log.h"
#include "src/edr/process/ImageInfo.h"
#include "src/fim/BaselineEventInfo.h"
#include "src/fim/ContentReader.h"
#include "src/fim/LogPrefix.h"

namespace zagent::fim::internal {
namespace {

std::string PathOf(const edr::Event& event) {
  const common::ImageInfo* file = event.GetFile();
  return file != nullptr ? file->GetPath() : "";
}

// Both rules of a symbolic link have one report id: it is named once.
std::vector<std::string> ReportIds(const std::vector<std::shared_ptr<const EventRule>>& rules) {
  std::vector<std::string> ids;
  for (const auto& rule : rules) {
    if (std::find(ids.begin(), ids.end(), rule->GetReportId()) == ids.end()) ids.push_back(rule->GetReportId());
  }
  return ids;
}

// What the document shows of the file's content: of a baseline what was captured, of a created or written file on a
// tracking rule what is on disk now.
std::optional<FileContent> ContentOf(const std::vector<std::shared_ptr<const EventRule>>& rules,
                                     const edr::Event& event) {
  if (event.GetType() == edr::EventType::Baseline)
    return FileContent{event.GetFileReadStatus(), event.GetFileContent()};
  if (event.GetObjectType() != edr::ObjectType::File || event.GetFile() == nullptr) return std::nullopt;
  if (event.GetType() != edr::EventType::Create && event.GetType() != edr::EventType::Write) return std::nullopt;
  if (std::none_of(rules.begin(), rules.end(), [](const auto& rule) { return rule->IsTrackContentChange(); })) {
    return std::nullopt;
  }
  return ReadFileContent(*event.GetFile());
}

void TellOfRefused(const health::ComponentHealth& health, common::util::LinePace& refusals, const std::string& reason) {
  health.CountRefused();
  const std::uint64_t times = refusals.Take();
  if (times == 0) return;
  ZLOG_ERROR("Failed to write Event json to disc" << (reason.empty() ? "" : ": ") << reason
                                                  << common::util::LinePace::Times(times));
}

// Whether the spool has taken the document. A code without the document tells of what the spool held before it, and the
// spool has told the log.
bool IsTaken(const common::StorageResult* result) {
  return result != nullptr && (result->code == common::StorageCode::Success || result->data.empty());
}

void TellOfWritten(const health::ComponentHealth& health, common::util::LinePace& refusals,
                   const common::StorageResult* result) {
  if (!IsTaken(result)) {
    TellOfRefused(health, refusals, "");
  } else if (result->code == common::StorageCode::Success) {
    ZLOG_DEBUG("Event json written to disc successfully");
  }
}

}  // namespace

EventProcessor::EventProcessor(const RuleTable& rules, common::Storage& storage, Baseline& baseline,
                               common::util::DigestCache& digests, const health::ComponentHealth& health,
                               const common::util::Clock& clock)
    : rules_(rules),
      storage_(storage),
      baseline_(baseline),
      health_(health),
      clock_(clock),
      refusals_(std::make_shared<common::util::LinePace>(clock)),
      pace_(digests, clock, LogPrefix()) {}

EventProcessor::~EventProcessor() {
  ZLOG_INFO("Destroying EventProcessor");
}

void EventProcessor::PostProcess(const std::vector<std::string>& rule_ids, const edr::Event& event) {
  if (event.GetType() == edr::EventType::Baseline) return TakeBaselines(FindRules(rule_ids), event);
  ZLOG_DEBUG("Processing Event id: " << event.GetId() << " path: " << PathOf(event));
  const MatchedRules matched = FindMatchingRules(rule_ids, event);
  if (matched.empty()) {
    ZLOG_DEBUG("Dropping Event as no rules criteria matched in post-process: " << PathOf(event));
    return;
  }
  TakeBaselines(matched, event);
  WriteJsonDoc(matched, event);
}

EventProcessor::MatchedRules EventProcessor::FindMatchingRules(const std::vector<std::string>& rule_ids,
                                                               const edr::Event& event) const {
  MatchedRules matched;
  for (std::shared_ptr<const EventRule>& rule : FindRules(rule_ids)) {
    const std::string& id = rule->GetId();
    ZLOG_TRACE("PostProcess event for ruleId: " << id);
    if (rule->Match(event) == edr::MatchResult::Matched) {
      matched.push_back(std::move(rule));
    } else {
      ZLOG_DEBUG("Event id: " << event.GetId() << " not matched with Rule id: " << id);
    }
  }
  return matched;
}

EventProcessor::MatchedRules EventProcessor::FindRules(const std::vector<std::string>& rule_ids) const {
  MatchedRules rules;
  for (const std::string& id : rule_ids) {
    if (std::shared_ptr<const EventRule> rule = rules_.GetRule(id)) {
      rules.push_back(std::move(rule));
    } else {
      ZLOG_DEBUG("NULL Rule for rule id: " << id);
    }
  }
  return rules;
}

void EventProcessor::TakeBaselines(const MatchedRules& rules, const edr::Event& event) {
  if (event.GetObjectType() != edr::ObjectType::File || event.GetFile() == nullptr) return;
  for (const auto& rule : rules) {
    if (!rule->IsTrackContentChange()) continue;
    TakeBaseline(rule, event.GetId(), event.GetFile()->GetPath());
    if (event.GetType() != edr::EventType::Rename || event.GetNewFile() == nullptr) continue;
    TakeBaseline(rule, event.GetId(), event.GetNewFile()->GetPath());
  }
}

void EventProcessor::TakeBaseline(const std::shared_ptr<const EventRule>& rule, std::uint32_t event_id,
                                  const std::string& path) {
  if (!baseline_.Begin(path)) return;
  try {
    const BaselineEventInfo baseline(event_id, edr::EventType::Baseline, path, clock_);
    // The answer may come when the processor has gone.
    const bool queued =
        WriteJsonDoc({rule}, baseline, [&known = baseline_, path](bool is_taken, const std::string& content_status) {
          is_taken ? known.NoteSpooled(path, content_status) : known.GiveUp(path);
        });
    if (!queued) baseline_.GiveUp(path);
  } catch (...) {
    baseline_.GiveUp(path);
    throw;
  }
}

bool EventProcessor::WriteJsonDoc(const MatchedRules& rules, const edr::Event& event, const OnSpooled& on_spooled) {
  EventDocumentParts parts;
  parts.associated_rules = ReportIds(rules);
  parts.collect_hashes = rules_.CollectsHashes();
  parts.content = ContentOf(rules, event);
  parts.pace = &pace_;
  try {
    QueueToStorage(event, parts, on_spooled);
    return true;
  } catch (const common::StorageException& error) {
    if (!parts.content || parts.content->bytes.empty()) {
      TellOfRefused(health_, *refusals_, error.what());
      return false;
    }
  }
  // The content made the document larger than a spool file may be: the event itself must not be lost with it.
  parts.content = FileContent{FileContent::kMaxSizeLimitReached, {}};
  try {
    QueueToStorage(event, parts, on_spooled);
    return true;
  } catch (const common::StorageException& error) {
    TellOfRefused(health_, *refusals_, error.what());
    return false;
  }
}

void EventProcessor::QueueToStorage(const edr::Event& event, const EventDocumentParts& parts,
                                    const OnSpooled& on_spooled) {
  const std::string document = BuildEventDocument(event, parts);
  const std::string content_status = parts.content ? parts.content->status : "";
  storage_.WriteAsync(common::Bytes(document.begin(), document.end()),
                      [&health = health_, refusals = refusals_, on_spooled,
                       content_status](std::unique_ptr<common::StorageResult> result) {
                        TellOfWritten(health, *refusals, result.get());
                        if (on_spooled) on_spooled(IsTaken(result.get()), content_status);
                      });
}

}  // namespace zagent::fim::internal
