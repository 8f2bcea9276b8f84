#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

namespace zutest {

/// Records when owners held one resource and finds the overlapping holds of
/// owners that may not hold it together. Thread safe.
class HoldLog {
 public:
  using Clock = std::chrono::steady_clock;

  /// `owner` held the resource from `got` (after its wait returned) to
  /// `released` (before its release was called).
  void add(const std::string& owner, Clock::time_point got, Clock::time_point released) {
    std::lock_guard<std::mutex> lock(mutex_);
    holds_.push_back(Hold{owner, got, released});
  }

  /// One line per overlapping pair whose names are unrelated: neither is a
  /// prefix of the other (a descendant may hold what its ancestor holds).
  std::vector<std::string> overlaps() const {
    std::vector<Hold> holds;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      holds = holds_;
    }
    std::sort(holds.begin(), holds.end(),
              [](const Hold& a, const Hold& b) { return a.got < b.got; });
    auto isPrefix = [](const std::string& p, const std::string& s) {
      return s.compare(0, p.size(), p) == 0;
    };
    std::vector<std::string> found;
    for (std::size_t i = 0; i < holds.size(); ++i) {
      for (std::size_t j = i + 1; j < holds.size() && holds[j].got < holds[i].released; ++j) {
        const std::string& a = holds[i].owner;
        const std::string& b = holds[j].owner;
        if (!isPrefix(a, b) && !isPrefix(b, a)) found.push_back(a + " overlaps " + b);
      }
    }
    return found;
  }

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
