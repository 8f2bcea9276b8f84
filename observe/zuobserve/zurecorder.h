#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <fstream>
#include <iosfwd>
#include <memory>
#include <string>
#include <thread>

#include <zuhost/zumutex.h>

#include <zuresource/zuobserver.h>
#include <zuresource/zusnapshot.h>

namespace ZU {

/// An observer that records every event, one JSON object per line, to a file
/// or a stream (the format: docs/observe-format.md). The first line gives the
/// wall-clock time at the start; every time after it is in milliseconds since
/// the start. A thread of its own writes and flushes each line, so that a slow
/// disk never holds up arbitration: onEvent only queues a copy of the event.
/// When the queue is full, events are dropped and a line
/// {"type":"dropped","count":N} says how many, where they would have been.
/// When a line cannot be written (a full disk, say), the recording ends
/// there: the failure is logged once and failure() says it; nothing after it
/// is written.
///
/// Thread safety: thread safe. `mutex_` guards the queue and the counts; the
/// stream is the writer thread's alone (and the constructor's, before it
/// starts). onEvent takes `mutex_` only, briefly.
class ZURecorder : public ZUObserver {
 public:
  /// How many events may wait for the writer by default.
  static constexpr std::size_t kDefaultQueueLimit = 4096;

  /// Records to the file `path`, created or emptied. Throws ZUError
  /// ("ZURecorder", "open") when it cannot be opened or its first line
  /// cannot be written.
  explicit ZURecorder(const std::string& path, std::size_t queueLimit = kDefaultQueueLimit);
  /// Records to `out`, which must outlive the recorder. Throws like the
  /// other constructor when the first line cannot be written.
  explicit ZURecorder(std::ostream& out, std::size_t queueLimit = kDefaultQueueLimit);
  /// Writes what is queued, then stops the writer. Unregister the recorder
  /// first (ZUObservers::remove), or events may arrive while it ends.
  ~ZURecorder() override;
  ZURecorder(const ZURecorder&) = delete;
  ZURecorder& operator=(const ZURecorder&) = delete;

  /// Queues a copy of `event`, or counts it as dropped when the queue is full.
  void onEvent(const ZUEvent& event) override;
  /// Queues `snapshot` as a line of its own (dropped like an event when full).
  void record(const ZUSnapshot& snapshot);
  /// Waits until every line queued before the call is written and flushed.
  void flush() ZU_EXCLUDES(mutex_);

  /// Events and snapshots dropped so far.
  std::uint64_t dropped() const ZU_EXCLUDES(mutex_);
  /// Why the recording ended early ("cannot write <file>: <reason>"), or ""
  /// while every line queued so far has been written or can still be.
  std::string failure() const ZU_EXCLUDES(mutex_);
  /// The start, as every time in the recording counts from it.
  std::chrono::steady_clock::time_point start() const { return start_; }

 private:
  /// An event, or a snapshot when `snapshot` is set.
  struct Item {
    ZUEvent event;
    std::shared_ptr<const ZUSnapshot> snapshot;
  };
  /// Writes the first line and starts the writer; throws when it fails.
  void startWriting();
  /// The failure text for the stream's state now.
  std::string writeProblem() const;
  void push(Item&& item) ZU_EXCLUDES(mutex_);
  void run() ZU_EXCLUDES(mutex_);

  std::ofstream file_;       // the writer's; unused when recording to a stream
  std::ostream& out_;        // the writer's
  const std::string name_;   // immutable: the file, or "the stream"
  const std::size_t limit_;  // immutable
  const std::chrono::steady_clock::time_point start_;  // immutable

  mutable ZUMutex mutex_;
  std::condition_variable changed_;
  std::deque<Item> queue_ ZU_GUARDED_BY(mutex_);
  std::uint64_t droppedTotal_ ZU_GUARDED_BY(mutex_) = 0;
  std::uint64_t droppedUnsaid_ ZU_GUARDED_BY(mutex_) = 0;  // not yet written in a line
  std::uint64_t queued_ ZU_GUARDED_BY(mutex_) = 0;         // items ever queued
  std::uint64_t written_ ZU_GUARDED_BY(mutex_) = 0;        // items ever written
  bool stopping_ ZU_GUARDED_BY(mutex_) = false;
  std::string failure_ ZU_GUARDED_BY(mutex_);

  std::thread writer_;  // started last, joined by the destructor
};

}  // namespace ZU
