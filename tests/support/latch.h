#pragma once

#include <condition_variable>
#include <mutex>

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

}  // namespace zutest
