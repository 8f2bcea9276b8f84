#pragma once

// Ctrl-C and SIGTERM end a run in order: the scenario stops as at its stopAt,
// so that what the run started (the fleet's etcd and its folder among them)
// is ended and removed.

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace zusim {

/// Waits for SIGINT and SIGTERM in a thread of its own. The first one calls
/// the action set by onInterrupt(); a second one ends the program at once
/// (exit status 128 + its number, as the shell reports a killed program).
///
/// Thread safety: made and destroyed by the main thread before and after
/// every other thread of the program; the rest may be called from any thread.
/// `mutex_` guards `action_`; `signal_` and `done_` are atomic.
class Interrupts {
 public:
  /// Blocks both signals in the calling thread, so in every thread made after
  /// it (make it first), and starts the waiting thread.
  Interrupts();
  /// Ends the waiting thread; the signals stay blocked.
  ~Interrupts();
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

  /// What the first signal does, called in the waiting thread under mutex_ (so
  /// it must not call back here); empty: nothing. Waits for a running action
  /// to end, so that what it uses may go once this returns.
  void onInterrupt(std::function<void()> action);
  /// The first signal's number, 0 while none came.
  int signal() const { return signal_; }
  /// Sleeps for `seconds`, or until a signal comes.
  void sleepFor(int seconds);

 private:
  void wait();

  std::mutex mutex_;
  std::condition_variable signalled_;  // notified at the first signal
  std::function<void()> action_;       // guarded by mutex_
  std::atomic<int> signal_{0};
  std::atomic<bool> done_{false};
  std::thread thread_;
};

}  // namespace zusim
