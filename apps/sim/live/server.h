#pragma once

// The live status page, served on 127.0.0.1 while a scenario runs.

#include <atomic>
#include <functional>
#include <string>

#include <zulive/zuliveserver.h>

#include "run/eventlog.h"
#include "run/runrecord.h"
#include "scenario/scenario.h"

namespace zusim {

/// Serves "/" : a page that follows the event stream (see stream()), or
/// reloads itself every second without one, and shows each resource's status
/// line as the library renders it (as text: markup in a name shows as markup
/// characters, never as markup), the waits running now with any deadlock and
/// stale wait among them, and the latest events; and
/// "/explain?owner=NAME&resource=NAME": what waitFor would do now, as plain text
/// (404 for an unknown owner or resource, 400 when either is missing). The
/// connections are ZU::ZULiveServer's, with its limits.
///
/// Thread safety: stream(), start(), finished() and stop() are called from one
/// thread; the pages are served from the server's own threads, which only read
/// the simulation, the log and the feed through their thread-safe queries.
class LiveServer {
 public:
  LiveServer(const Scenario& scenario, RunView& simulation, EventLog& log);
  ~LiveServer();
  LiveServer(const LiveServer&) = delete;
  LiveServer& operator=(const LiveServer&) = delete;

  /// Binds 127.0.0.1:`port` (0: any free port) and starts serving. Returns
  /// the port, or -1 when it cannot be bound.
  int start(int port);
  /// Before start(): serve "/events" and "/snapshot.json" (see
  /// ZU::ZULiveServer::stream); the page follows the stream instead of
  /// reloading. Both must outlive the server.
  void stream(ZU::ZULiveFeed& feed, std::function<std::string()> snapshot);
  /// The run is over with exit status `status`; the page says so, and the
  /// event stream ends once its readers have every line.
  void finished(int status);
  /// Stops serving, closing every connection. Idempotent.
  void stop();

  /// The page as it is now.
  std::string page();
  /// The answer to an explain query, as plain text (names as they are, no
  /// entities); `status` is set to the HTTP status.
  std::string explainPage(const std::string& owner, const std::string& resource, int& status);

 private:
  const Scenario& scenario_;
  RunView& simulation_;
  EventLog& log_;
  bool streamed_ = false;        // set before start(), then immutable
  std::atomic<int> status_{-1};  // -1 while the scenario runs
  ZU::ZULiveServer server_;
};

}  // namespace zusim
