#pragma once

#include <atomic>
#include <chrono>
#include <iosfwd>
#include <mutex>
#include <string>
#include <vector>

namespace zusim {

enum class EventKind {
  Request,
  Waiting,
  Notified,
  Granted,
  NotObtained,
  HandedDown,
  HandedBack,
  Released,
  GaveBack,
  Switched,
  TimedOut,
  Stopped,
  Failed,
  State,
  Manager,
  Deadlock,
  StaleWait,
  Lost
};

/// The short name of a kind, as the report's marks and legend show it.
const char* kindName(EventKind kind);

struct Event {
  long ms = 0;  // since the start of the run
  EventKind kind = EventKind::Request;
  std::string owner;     // who it is about; empty for the manager
  std::string resource;  // the lane it belongs on in the timeline
  std::string text;      // the whole line
};

/// The run's event log: each event is stamped with the ms since the start,
/// printed at once and kept for the report.
///
/// Thread safety: thread safe; any thread may add events. Its mutex is taken
/// last: nothing is called out while it is held.
class EventLog {
 public:
  using Clock = std::chrono::steady_clock;

  /// Prints to `out` (may be null: keep only). The clock starts now.
  explicit EventLog(std::ostream* out);

  /// Starts the clock again, now: the run calls it once its threads are made,
  /// so that thread creation does not count as scenario time.
  void restart();

  /// Milliseconds since the start.
  long now() const;
  /// Milliseconds from the start to `moment` (negative before the start).
  long msOf(Clock::time_point moment) const;
  /// The moment `ms` after the start, for sleeping until it.
  Clock::time_point at(long ms) const;

  void add(EventKind kind, const std::string& owner, const std::string& resource,
           const std::string& text);
  /// The same, for something that happened at `ms` (a library event is
  /// logged at the time the library stamped it).
  void add(long ms, EventKind kind, const std::string& owner, const std::string& resource,
           const std::string& text);
  /// Prints a line that is not an event (headings, the status page).
  void print(const std::string& line);

  /// A copy of the events so far, in the order they were added.
  std::vector<Event> events() const;
  /// The last `count` events.
  std::vector<Event> last(std::size_t count) const;

 private:
  std::ostream* out_;              // immutable
  std::atomic<Clock::rep> start_;  // atomic: the clock's ticks at the start
  mutable std::mutex mutex_;
  std::vector<Event> events_;  // guarded by mutex_
};

}  // namespace zusim
