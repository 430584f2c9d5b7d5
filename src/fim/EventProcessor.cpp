#include "src/fim/EventProcessor.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "common/src/storage/StorageResult.h"
#include "common/src/util/Log.h"
#include "src/edr/process/ImageInfo.h"
#include "src/fim/EventDocument.h"
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

bool WantsContent(const std::vector<std::shared_ptr<const EventRule>>& rules, const edr::Event& event) {
  if (event.GetObjectType() != edr::ObjectType::File || event.GetFile() == nullptr) return false;
  if (event.GetType() != edr::EventType::Create && event.GetType() != edr::EventType::Write) return false;
  return std::any_of(rules.begin(), rules.end(), [](const auto& rule) { return rule->IsTrackContentChange(); });
}

void LogWriteFailure(const std::string& reason) {
  ZLOG_ERROR("Failed to write Event json to disc" << (reason.empty() ? "" : ": ") << reason);
}

void OnWritten(std::unique_ptr<common::StorageResult> result) {
  // A code without the document tells of what the spool held before it, and the spool has told the log.
  if (result == nullptr || (result->code != common::StorageCode::Success && !result->data.empty())) {
    LogWriteFailure("");
  } else if (result->code == common::StorageCode::Success) {
    ZLOG_DEBUG("Event json written to disc successfully");
  }
}

}  // namespace

EventProcessor::EventProcessor(const RuleTable& rules, common::Storage& storage) : rules_(rules), storage_(storage) {}

EventProcessor::~EventProcessor() {
  ZLOG_INFO("Destroying EventProcessor");
}

void EventProcessor::PostProcess(const std::vector<std::string>& rule_ids, const edr::Event& event) {
  ZLOG_DEBUG("Processing Event id: " << event.GetId() << " path: " << PathOf(event));
  const MatchedRules matched = FindMatchingRules(rule_ids, event);
  if (matched.empty()) {
    ZLOG_DEBUG("Dropping Event as no rules criteria matched in post-process: " << PathOf(event));
    return;
  }
  WriteJsonDoc(matched, event);
}

EventProcessor::MatchedRules EventProcessor::FindMatchingRules(const std::vector<std::string>& rule_ids,
                                                               const edr::Event& event) const {
  MatchedRules matched;
  for (const std::string& id : rule_ids) {
    std::shared_ptr<const EventRule> rule = rules_.GetRule(id);
    if (rule == nullptr) {
      ZLOG_DEBUG("NULL Rule for rule id: " << id);
      continue;
    }
    ZLOG_TRACE("PostProcess event for ruleId: " << id);
    if (rule->Match(event) == edr::MatchResult::Matched) {
      matched.push_back(std::move(rule));
    } else {
      ZLOG_DEBUG("Event id: " << event.GetId() << " not matched with Rule id: " << id);
    }
  }
  return matched;
}

void EventProcessor::WriteJsonDoc(const MatchedRules& rules, const edr::Event& event) {
  EventDocumentParts parts;
  parts.associated_rules = ReportIds(rules);
  parts.collect_hashes = rules_.CollectsHashes();
  if (WantsContent(rules, event)) parts.content = ReadFileContent(*event.GetFile());
  try {
    QueueToStorage(BuildEventDocument(event, parts));
  } catch (const common::StorageException& error) {
    if (!parts.content || parts.content->bytes.empty()) return LogWriteFailure(error.what());
    // The content made the document larger than a spool file may be: the event itself must not be lost with it.
    parts.content = FileContent{FileContent::kMaxSizeLimitReached, {}};
    try {
      QueueToStorage(BuildEventDocument(event, parts));
    } catch (const common::StorageException& second_error) {
      LogWriteFailure(second_error.what());
    }
  }
}

void EventProcessor::QueueToStorage(const std::string& document) {
  storage_.WriteAsync(common::Bytes(document.begin(), document.end()), OnWritten);
}

}  // namespace zagent::fim::internal
