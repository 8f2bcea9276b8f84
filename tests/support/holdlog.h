#pragma once

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace zutest {

/// Records the intervals in which owners held one resource and finds the ones
/// that overlap although their owners may not hold it at the same time.
/// Thread safe.
class HoldLog {
 public:
  using Clock = std::chrono::steady_clock;

  /// `owner` held the resource from `got` (taken after its wait returned) to
  /// `released` (taken before its release was called).
  void add(const std::string& owner, Clock::time_point got, Clock::time_point released);
  /// One line per pair of overlapping intervals whose owners are unrelated:
  /// neither name is a prefix of the other (a descendant may hold the resource
  /// while its ancestor does).
  std::vector<std::string> overlaps() const;
  std::size_t size() const;

 private:
  struct Hold {
    std::string owner;
    Clock::time_point got;
    Clock::time_point released;
  };
  mutable std::mutex mutex_;
  std::vector<Hold> holds_;  // guarded by mutex_
};

}  // namespace zutest
