#include "src/edr/process/ProcessInfo.h"

#include "common/src/util/Log.h"

namespace zagent::common {

ProcessInfo::ProcessInfo(std::int32_t pid, std::int32_t ppid) : pid_(pid), ppid_(ppid) {
  if (pid < 0) throw ProcessInfoException("ProcesInfo: pid cannot be negative");
  if (ppid == pid) {
    ZLOG_ERROR("ProcessInfo: ppid cannot be the same as pid (" << pid << ")");
    ppid_ = kNoParent;
    return;
  }
  ZLOG_TRACE("ProcessInfo: Creating process with pid " << pid << " and ppid " << ppid);
}

void ProcessInfo::SetPid(std::int32_t pid) {
  ZLOG_TRACE("ProcessInfo: Updating pid of " << pid_ << " to " << pid);
  pid_ = pid;
}

void ProcessInfo::SetParent(std::int32_t ppid) {
  if (ppid == pid_) {
    throw ProcessInfoException("ProcessInfo: ppid cannot be set the same value as pid (" + std::to_string(pid_) + ")");
  }
  ZLOG_TRACE("ProcessInfo: Updating parent of " << pid_ << " to " << ppid << ". Old parent was " << ppid_);
  ppid_ = ppid;
}

void ProcessInfo::AddChild(std::int32_t pid) {
  ZLOG_TRACE("ProcessInfo: Adding " << pid << " as child of " << pid_);
  children_.insert(pid);
}

void ProcessInfo::RemoveChild(std::int32_t pid) {
  ZLOG_TRACE("ProcessInfo: Removing " << pid << " from children of " << pid_);
  children_.erase(pid);
}

}  // namespace zagent::common
