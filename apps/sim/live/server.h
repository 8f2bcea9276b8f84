#pragma once

// The live status page, served on 127.0.0.1 while a scenario runs.

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "run/eventlog.h"
#include "run/runrecord.h"
#include "scenario/scenario.h"

namespace httplib {
class Server;
struct DataSink;
}  // namespace httplib

namespace zusim {

class LiveFeed;

/// Serves "/" : a page that follows the event stream (see stream()), or
/// reloads itself every second without one, and shows each resource's status
/// line as the library renders it (as text: markup in a name shows as markup
/// characters, never as markup), the waits running now with any deadlock and
/// stale wait among them, and the latest events; and
/// "/explain?owner=NAME&resource=NAME": what waitFor would do now, as plain text
/// (404 for an unknown owner or resource, 400 when either is missing).
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
  /// Before start(): serve "/events", a server-sent-events stream of
  /// `feed`'s lines from its first (or after the Last-Event-ID a reader sends
  /// back), ended by a "finished" event with the exit status once the run is
  /// over; the page follows it instead of reloading. And "/snapshot.json",
  /// `snapshot`'s answer. Both must outlive the server.
  void stream(LiveFeed& feed, std::function<std::string()> snapshot);
  /// The run is over with exit status `status`; the page says so, and the
  /// event stream ends once its readers have every line.
  void finished(int status);
  /// Stops serving and waits for the server's thread. Idempotent.
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
  /// Writes the lines of the feed from `next` on, or waits a little for
  /// one; false when the reader is gone or the server stops.
  bool sendEvents(std::size_t& next, httplib::DataSink& sink);

  LiveFeed* feed_ = nullptr;               // set before start(), then immutable
  std::function<std::string()> snapshot_;  // set before start(), then immutable
  std::atomic<bool> stopping_{false};
  std::atomic<int> status_{-1};              // -1 while the scenario runs
  std::unique_ptr<httplib::Server> server_;  // set by start(), before the thread
  std::thread thread_;
};

}  // namespace zusim
