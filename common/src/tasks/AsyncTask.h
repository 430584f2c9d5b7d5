#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace zagent::common {

// A piece of work that is started again and again, one run at a time, each run on a thread of its own.
//
// Start, Cancel, IsRunning and IsCancelling may be called from any thread but the run's own (IsCancelling: from
// everywhere). Every final class calls Cancel() in its own destructor: when the base's destructor runs, Execute is
// already gone.
class AsyncTask {
 public:
  AsyncTask() = default;
  AsyncTask(const AsyncTask&) = delete;
  AsyncTask& operator=(const AsyncTask&) = delete;
  virtual ~AsyncTask();

  // Blocks while a run is under way, then starts the next one. Throws std::system_error when no thread can be made;
  // the task is idle then. Never joins a thread, because the caller may hold a lock that OnIdle of the run before
  // needs: the new run's thread joins the old one before it calls Execute.
  virtual void Start();

  // Asks a run to end (OnCancel, IsCancelling) and waits for its end. Without a run it returns at once, but never
  // before OnIdle of the last run has returned.
  void Cancel();

  [[nodiscard]] bool IsRunning() const { return state_ != State::Idle; }
  [[nodiscard]] bool IsCancelling() const { return state_ == State::Cancelling; }

 protected:
  // The work of one run. What it throws (std::exception) is logged and ends this run only.
  virtual void Execute() = 0;
  // Called by Cancel, without a lock, while a run is under way.
  virtual void OnCancel() {}

  // Called on the run's thread once the task is idle again, with no lock held.
  virtual void OnIdle() {}

 private:
  enum class State { Idle = 0, Running = 1, Cancelling = 2 };
  void OnExecute();
  void JoinFinishedThread();

  mutable std::mutex mutex_;
  std::condition_variable idle_;
  std::atomic<State> state_{State::Idle};
  std::uint64_t runs_started_ = 0;
  std::uint64_t runs_ended_ = 0;
  std::thread thread_;           // of the latest run
  std::thread previous_thread_;  // of the run before, until the latest run's thread has joined it
  std::mutex join_mutex_;        // taken before mutex_
};

}  // namespace zagent::common
