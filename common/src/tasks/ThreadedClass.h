#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <utility>

#include "common/src/tasks/ResourceMonitor.h"
#include "common/src/util/Clock.h"

namespace zagent::common {

// A named loop on a thread of its own: Execute, wait for the wake predicate, pause while the process uses too much CPU,
// and again. It may be started again after Stop.
//
// All operations may be called from any thread; Start and Stop not from the loop's own, which they would wait for.
// Every final class calls Stop() in its own destructor: when the base's destructor runs, Execute is already gone.
class ThreadedClass {
 protected:
  // The order of the virtual operations is part of the interface.

  // One turn of the loop. A std::exception that it throws is logged, and the loop goes on; anything else ends the
  // thread.
  virtual void Execute() = 0;
  // Called by Start before the thread exists. What it throws ends the Start.
  virtual void OnStart() = 0;
  // Called by Stop before the loop is told.
  virtual void OnStop() {}

 public:
  enum class CpuCheck : std::uint32_t {
    None = 0,
    PauseWhileBusy = 1,  // pauses, with a line in the log, until the use is not above the limit any more
    PauseOnce = 2,       // one silent pause
  };

  // Throws as the constructor of ResourceMonitor does. Limits in percent.
  ThreadedClass(std::string name, std::uint64_t cpu_limit, std::uint64_t memory_limit,
                util::Clock& clock = util::Clock::Real(), const std::string& proc_root = "/proc");
  ThreadedClass(const ThreadedClass&) = delete;
  ThreadedClass& operator=(const ThreadedClass&) = delete;
  virtual ~ThreadedClass();

  // Throws std::runtime_error "Start called for already running <name> instance"; std::system_error without a thread.
  void Start();
  // Returns after the thread's end. Does nothing when it was never started. What ended the thread before its time (a
  // wake predicate or a resource monitor that threw) is logged when it happens and again here; it is not thrown on.
  void Stop();

  // What the loop's thread is called in /proc; its class's name otherwise. Before Start.
  void SetThreadName(std::string name) { thread_name_ = std::move(name); }

  // True before Start and from Stop on.
  [[nodiscard]] bool IsStopped() const { return stopped_; }
  // Ends a wait early if the wake predicate holds.
  void Notify();

  // How CpuPause works; initially it does not.
  void SetCpuCheck(CpuCheck mode, std::uint64_t pause_millis);
  // The loop waits after each turn until `wake_predicate` holds, at most `wait_millis`; 0 is without a limit, and so it
  // is before this call. The predicate is called with a lock held: it may look at what has a lock of its own, and must
  // not call this class. Whoever changes what it looks at calls Notify.
  void SetWait(std::uint64_t wait_millis, std::function<bool()> wake_predicate);

  [[nodiscard]] const std::string& GetName() const { return name_; }
  // Belongs to the loop's thread.
  [[nodiscard]] ResourceMonitor& GetResourceMonitor() { return monitor_; }

 protected:
  // Pauses while the process uses more CPU than its limit, as SetCpuCheck says; ends early on Stop. The loop calls it
  // after each turn; a turn of many steps calls it between them. On the loop's thread only.
  void CpuPause();

 private:
  void Run();
  void TakeTurn();
  bool Wait();
  void EndThread();

  const std::string name_;
  std::string thread_name_ = name_;
  util::Clock& clock_;
  ResourceMonitor monitor_;
  std::atomic<bool> stopped_{true};
  std::mutex start_mutex_;  // over the whole of Start and Stop; taken before mutex_
  std::future<void> thread_;

  std::mutex mutex_;
  std::condition_variable wake_;
  CpuCheck cpu_check_ = CpuCheck::None;
  std::chrono::milliseconds cpu_pause_{1000};
  std::chrono::milliseconds wait_{0};
  std::function<bool()> wake_predicate_;
};

}  // namespace zagent::common
