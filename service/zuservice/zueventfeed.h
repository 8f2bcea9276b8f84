#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <zuresource/zuobserver.h>

namespace ZU {
namespace service {

/// The arbitration's recent events as JSON lines in the recording's form,
/// kept for the service's watch streams: the latest `capacity` events, each
/// under its sequence number. An observer of the library: onEvent only
/// formats and queues, so a slow watcher never holds up arbitration; the
/// feed's own thread tells the subscribers that there is news.
///
/// Thread safety: all operations are thread safe.
class ZUEventFeed : public ZUObserver {
 public:
  struct Line {
    std::uint64_t sequence;
    std::string json;
  };
  /// Called from the feed's thread, with no lock of the feed held, when
  /// lines arrived.
  using Wake = std::function<void()>;

  static constexpr std::size_t kDefaultCapacity = 4096;

  /// Times count from `start`.
  explicit ZUEventFeed(std::chrono::steady_clock::time_point start,
                       std::size_t capacity = kDefaultCapacity);
  /// Stops the thread. Unregister the feed from the library's observers first.
  ~ZUEventFeed() override;
  ZUEventFeed(const ZUEventFeed&) = delete;
  ZUEventFeed& operator=(const ZUEventFeed&) = delete;

  /// Takes: mutex_.
  void onEvent(const ZUEvent& event) override;

  /// The lines from sequence `from` on (all kept ones when `from` is older
  /// than the oldest), at most `limit`. Takes: mutex_.
  std::vector<Line> since(std::uint64_t from, std::size_t limit) const;
  /// The sequence number the next event will have at the earliest (one past
  /// the newest kept). Takes: mutex_.
  std::uint64_t next() const;
  /// The moment every line's "ms" counts from.
  std::chrono::steady_clock::time_point start() const { return start_; }

  /// Registers `wake`; returns its id for unsubscribe. Takes: mutex_.
  std::uint64_t subscribe(Wake wake);
  /// After it returns, `wake` of that id is not running and is never called
  /// again (unless called from inside a wake). Takes: mutex_.
  void unsubscribe(std::uint64_t id);

 private:
  void run();

  const std::size_t capacity_;                          // immutable
  const std::chrono::steady_clock::time_point start_;  // immutable

  mutable std::mutex mutex_;
  std::condition_variable changed_;  // news, or stopping
  // Guarded by mutex_.
  std::deque<Line> lines_;
  std::uint64_t newest_ = 0;
  bool news_ = false;
  bool stopping_ = false;
  std::vector<std::pair<std::uint64_t, std::shared_ptr<Wake>>> subscribers_;
  std::uint64_t nextSubscriber_ = 1;
  std::uint64_t waking_ = 0;  // the subscriber being woken now, 0 for none
  std::thread::id runner_;    // the feed's thread
  std::thread thread_;        // started in the constructor
};

}  // namespace service
}  // namespace ZU
