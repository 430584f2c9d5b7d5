#include "src/edr/host/HealthService.h"

#include <exception>
#include <utility>

#include "common/src/util/Log.h"

namespace zagent::edr::host {

HealthService::HealthService(health::AHSSettings settings, const std::string& directory,
                             std::unique_ptr<common::Uploader> uploader, common::Scheduler& scheduler,
                             const audit::IntakeCounters& counters, audit::AuditNetlink& netlink)
    : scheduler_(scheduler),
      store_(directory),
      intake_({.counters = counters,
               .refused_documents = [this] { return store_.RefusedDocuments(); },
               .removed_files = [this] { return store_.RemovedFiles(); },
               .removed_bytes = [this] { return store_.RemovedBytes(); },
               .dropped_events = [this] { return store_.DroppedEvents(); }},
              netlink, store_),
      uploads_(std::make_shared<health::AHSUploadSchedule>(std::move(settings), store_, std::move(uploader))) {}

HealthService::~HealthService() {
  Stop();
}

void HealthService::StartUploads() {
  scheduler_.RegisterSchedule(uploads_);
  is_registered_ = true;
}

void HealthService::Stop() {
  if (!std::exchange(is_registered_, false)) return;
  intake_.TellAtEnd();
  try {
    scheduler_.UnregisterSchedule(uploads_);
  } catch (const std::exception& error) {
    ZLOG_WARNING("HealthService: " << error.what());
  }
}

}  // namespace zagent::edr::host
