#pragma once

// The arbitration's events as JSON lines, kept in memory for a live page's
// event stream (see ZULiveServer).

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <string>
#include <vector>

#include <zuhost/zumutex.h>

#include <zuresource/zuobserver.h>

namespace ZU {

/// An observer that turns every event into its JSON line (the recorder's
/// format, times in ms since the feed was made) and keeps the lines, so that
/// any number of readers can follow them from any point. A feed made to keep
/// only the latest lines lets older ones go; lines keep their numbers.
///
/// Thread safety: thread safe. mutex_ guards the lines and `closed_`; onEvent
/// takes it only to append, after the line is made.
class ZULiveFeed : public ZUObserver {
 public:
  using Clock = std::chrono::steady_clock;

  /// Keeps every line, or only the latest `keep` (0: every line).
  explicit ZULiveFeed(std::size_t keep = 0);

  void onEvent(const ZUEvent& event) override;

  /// Appends a line of its own (the run's end, say). mutex_.
  void add(const std::string& line);
  /// No line follows: readers waiting are woken and told so. mutex_.
  void close();

  /// The lines from `from` on, waiting up to `patience` for one when there
  /// is none yet. `closed` tells whether more may come. When lines from
  /// `from` on are gone already, they start at the oldest kept; `first`, when
  /// given, is set to the number of the first line returned. mutex_.
  std::vector<std::string> linesFrom(std::size_t from, std::chrono::milliseconds patience,
                                     bool& closed, std::size_t* first = nullptr);
  /// How many lines were added in all (kept or not). mutex_.
  std::size_t count();
  /// When the feed was made: its lines count their ms from it. Immutable.
  Clock::time_point start() const { return start_; }

 private:
  const Clock::time_point start_;
  const std::size_t keep_;  // 0: every line
  ZUMutex mutex_;
  std::condition_variable grown_;
  std::deque<std::string> lines_ ZU_GUARDED_BY(mutex_);
  std::size_t dropped_ ZU_GUARDED_BY(mutex_) = 0;  // the number of lines_.front()
  bool closed_ ZU_GUARDED_BY(mutex_) = false;
};

}  // namespace ZU
