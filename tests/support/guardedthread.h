#pragma once

#include <functional>
#include <memory>
#include <thread>

#include "support/latch.h"

namespace zutest {

/// A thread that can be joined with a time limit, so that a deadlock makes a
/// test fail instead of hanging it. Not shared between threads.
class GuardedThread {
 public:
  /// Runs `body` in a new thread. Whatever `body` uses must stay alive for as
  /// long as it might run, also after a failed joinFor().
  explicit GuardedThread(std::function<void()> body)
      : done_(std::make_shared<Latch>()), thread_([body = std::move(body), done = done_] {
          body();
          done->countDown();
        }) {}
  /// Joins a thread that was not joined yet (waiting as long as it takes).
  ~GuardedThread() {
    if (thread_.joinable()) thread_.join();
  }
  GuardedThread(const GuardedThread&) = delete;
  GuardedThread& operator=(const GuardedThread&) = delete;

  /// True, with the thread joined, when the body ends within `ms`; otherwise
  /// false, with the thread detached and left to its fate.
  /// Calling it again is harmless.
  bool joinFor(int ms) {
    if (!done_->waitFor(ms)) {
      if (thread_.joinable()) thread_.detach();
      return false;
    }
    if (thread_.joinable()) thread_.join();
    return true;
  }

 private:
  std::shared_ptr<Latch> done_;  // shared with the thread, which may outlive us
  std::thread thread_;
};

}  // namespace zutest
