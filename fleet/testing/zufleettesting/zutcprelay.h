#pragma once

#include <condition_variable>
#include <string>
#include <thread>

#include <sys/socket.h>

#include <zuhost/zumutex.h>
#include <zuhost/zuthreadannotations.h>

namespace ZU {

/// A TCP relay on a free port of 127.0.0.1 in front of one etcd endpoint, for
/// tests and simulations that play a network between a robot and etcd:
/// traffic passes, is held (nothing moves either way, new connections wait
/// unanswered: a partition; what was held moves on, late, when traffic
/// passes again), or is refused (new connections are refused, open ones
/// reset: a robot that cannot reach etcd and knows it at once).
///
/// Thread safety: thread safe. One thread of its own moves the bytes; the
/// mode is guarded by `mutex_`.
class ZUTcpRelay {
 public:
  enum class Mode { Pass, Hold, Refuse };

  /// Relays to `upstream` ("http://HOST:PORT"). Throws ZUError when it
  /// cannot listen or `upstream` is not of that form or not found.
  explicit ZUTcpRelay(const std::string& upstream);
  /// Stops the thread and closes every connection.
  ~ZUTcpRelay();
  ZUTcpRelay(const ZUTcpRelay&) = delete;
  ZUTcpRelay& operator=(const ZUTcpRelay&) = delete;

  /// The relay's own endpoint, "http://127.0.0.1:PORT".
  std::string endpoint() const;
  /// Switches the mode; returns once the relay's thread has applied it.
  /// Takes: mutex_.
  void setMode(Mode mode) ZU_EXCLUDES(mutex_);

 private:
  /// The relay's thread. Takes: mutex_ while it applies a mode (closing and
  /// opening sockets, which does not block), never while it moves bytes.
  void run() ZU_EXCLUDES(mutex_);

  /// Immutable after construction.
  sockaddr_storage upstream_{};
  socklen_t upstreamSize_ = 0;
  int port_ = 0;
  /// The pipe that wakes the thread: written by setMode and the destructor.
  int wake_[2] = {-1, -1};
  ZUMutex mutex_;
  /// Signals that done_ moved on.
  std::condition_variable applied_;
  Mode mode_ ZU_GUARDED_BY(mutex_) = Mode::Pass;
  unsigned requested_ ZU_GUARDED_BY(mutex_) = 0;  // changes asked
  unsigned done_ ZU_GUARDED_BY(mutex_) = 0;       // changes applied
  bool stopping_ ZU_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace ZU
