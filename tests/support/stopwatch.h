#pragma once

#include <chrono>
#include <cstdlib>

#include <gtest/gtest.h>

namespace zutest {

/// Measures elapsed wall time on the steady clock. Not shared between threads.
class Stopwatch {
 public:
  Stopwatch() : start_(std::chrono::steady_clock::now()) {}
  void restart() { start_ = std::chrono::steady_clock::now(); }
  long elapsedMs() const {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now() - start_)
                                 .count());
  }

 private:
  std::chrono::steady_clock::time_point start_;
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
