#pragma once

// Threads and time in tests: a thread joined with a time limit, a latch, a
// small-stack runner and a stopwatch with the late tolerance of timed checks.
// Each is owned by one test thread unless it says otherwise.

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

namespace zutest {

/// A one-shot countdown latch: wait() blocks until countDown() was called
/// `count` times. Thread safe.
class Latch {
 public:
  explicit Latch(int count = 1) : count_(count) {}
  void countDown() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (count_ > 0 && --count_ == 0) done_.notify_all();
  }
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    done_.wait(lock, [this] { return count_ == 0; });
  }
  /// False when `ms` passed first.
  bool waitFor(int ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    return done_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return count_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  int count_;  // guarded by mutex_
};

/// A thread that can be joined with a time limit, so that a deadlock makes a
/// test fail instead of hanging it.
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
  /// false, with the thread detached and left to its fate. Calling it again
  /// is harmless.
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

/// Runs `body` in a thread of its own with a stack of `bytes`, and waits for
/// it: a walk that recurses with the depth of its input overflows it long
/// before the input gets large.
inline void runOnSmallStack(std::size_t bytes, std::function<void()> body) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, bytes);
  pthread_t thread;
  auto run = [](void* argument) -> void* {
    (*static_cast<std::function<void()>*>(argument))();
    return nullptr;
  };
  int made = pthread_create(&thread, &attributes, run, &body);
  pthread_attr_destroy(&attributes);
  if (made != 0) throw std::runtime_error("runOnSmallStack: no thread");
  pthread_join(thread, nullptr);
}

/// Measures elapsed wall time on the steady clock.
class Stopwatch {
 public:
  void restart() { start_ = std::chrono::steady_clock::now(); }
  long elapsedMs() const {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now() - start_)
                                 .count());
  }

 private:
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// Slack allowed above an expected duration: scheduling on a loaded machine
/// and sanitizer or emulated builds run late, never early. 400 ms, or the
/// value of ZU_TEST_LATE_TOLERANCE_MS (the sanitizer and 32-bit test presets
/// raise it).
inline long lateToleranceMs() {
  static const long tolerance = [] {
    const char* text = std::getenv("ZU_TEST_LATE_TOLERANCE_MS");
    long value = text ? std::atol(text) : 0;
    return value > 0 ? value : 400L;
  }();
  return tolerance;
}

}  // namespace zutest

/// Asserts that `elapsed` lies in [expected - 20 ms, expected + tolerance].
#define EXPECT_ELAPSED_NEAR(elapsed, expectedMs)                                      \
  do {                                                                                \
    long zu_e = (elapsed);                                                            \
    EXPECT_GE(zu_e, (expectedMs)-20) << "finished too early";                         \
    EXPECT_LE(zu_e, (expectedMs) + zutest::lateToleranceMs()) << "finished too late"; \
  } while (0)
