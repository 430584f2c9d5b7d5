#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace zagent::common {

// A piece of work that is started again and again, one run at a time, each run on a thread of its own.
//
// Start, Cancel, IsRunning and IsCancelling may be called from any thread but the run's own (IsCancelling: from
// everywhere). Every final class calls Cancel() in its own destructor: when the base's destructor runs, Execute is
// already gone.
class AsyncTask {
 protected:
  // The order of the virtual operations is part of the interface.

  // The work of one run. What it throws (std::exception) is logged and ends this run only.
  virtual void Execute() = 0;
  // Called by Cancel, without a lock, while a run is under way.
  virtual void OnCancel() {}

 public:
  AsyncTask() = default;
  AsyncTask(const AsyncTask&) = delete;
  AsyncTask& operator=(const AsyncTask&) = delete;
  virtual ~AsyncTask();

  // Blocks while a run is under way, then starts the next one. Throws std::system_error when no thread can be made;
  // the task is idle then. Never joins a thread, because the caller may hold a lock that the idle hook of the run
  // before needs: the new run's thread joins the old one before it calls Execute.
  virtual void Start();

  // Asks a run to end (OnCancel, IsCancelling) and waits for its end. Without a run it returns at once, but never
  // before the idle hook of the last run has returned.
  void Cancel();

  [[nodiscard]] bool IsRunning() const { return state_ != State::Idle; }
  [[nodiscard]] bool IsCancelling() const { return state_ == State::Cancelling; }

 protected:
  // What a base between this one and the final class wants to hear, each called with no lock held. No virtual
  // operations, which would push those of the derived classes out of their order.
  struct Hooks {
    std::function<void()> idle;       // on the run's thread, once the task is idle again
    std::function<void()> cancelled;  // at the end of every Cancel, with a run or without; not from ~AsyncTask
  };
  explicit AsyncTask(Hooks hooks) : hooks_(std::move(hooks)) {}

 private:
  enum class State { Idle = 0, Running = 1, Cancelling = 2 };
  void OnExecute();
  void EndRun();
  void JoinFinishedThread();

  const Hooks hooks_{};
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
