#pragma once

// The service's live page, read-only: the robot's resources, the waits and
// the latest events, following the event stream as the simulator's page does.

#include <string>

#include <boost/shared_ptr.hpp>

#include <zulive/zulivefeed.h>
#include <zulive/zuliveserver.h>
#include <zumanager/zumanager.h>

namespace zuresourced {

/// Serves "/" (the page), "/events" and "/snapshot.json" of `manager`'s
/// resources, fed by the library's events from start() to stop().
///
/// Thread safety: start() and stop() from one thread; the pages are served
/// from the server's threads, which only take snapshots and read the feed
/// (both thread safe). Holds no lock of its own.
class LivePage {
 public:
  explicit LivePage(ZU::ZUManager& manager);
  ~LivePage();
  LivePage(const LivePage&) = delete;
  LivePage& operator=(const LivePage&) = delete;

  /// Binds `host`:`port` (0: any free port), registers the feed as an
  /// observer and serves. Returns the port, or -1 when it cannot be bound.
  int start(const std::string& host, int port);
  /// Ends the event streams, stops serving and unregisters the feed. Idempotent.
  void stop();

  /// The page as it is now.
  std::string page();

 private:
  ZU::ZUManager& manager_;
  boost::shared_ptr<ZU::ZULiveFeed> feed_;  // immutable pointer; the feed is thread safe
  ZU::ZULiveServer server_;
  bool started_ = false;  // start() and stop()'s thread only
};

/// Splits "--http" 's value, "PORT" or "ADDR:PORT", into `host` (127.0.0.1
/// when none is given) and `port` (0 to 65535, 0 for any free port). False when it is neither.
bool parseHttpAddress(const std::string& text, std::string& host, int& port);

}  // namespace zuresourced
