#pragma once

// The live status page, served on 127.0.0.1 while a scenario runs.

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "eventlog.h"
#include "runrecord.h"
#include "scenario.h"

namespace httplib {
class Server;
}

namespace zusim {

/// Serves "/" : a page that refreshes itself every second and shows each
/// resource's status line as the library renders it (as text: markup in a
/// name shows as markup characters, never as markup), the waits running now
/// with any deadlock and stale wait among them, and the latest events; and
/// "/explain?owner=NAME&resource=NAME": what waitFor would do now, as plain text
/// (404 for an unknown owner or resource, 400 when either is missing).
///
/// Thread safety: start(), finished() and stop() are called from one thread;
/// the pages are served from the server's own threads, which only read the
/// simulation and the log through their thread-safe queries.
class LiveServer {
 public:
  LiveServer(const Scenario& scenario, RunView& simulation, EventLog& log);
  ~LiveServer();
  LiveServer(const LiveServer&) = delete;
  LiveServer& operator=(const LiveServer&) = delete;

  /// Binds 127.0.0.1:`port` (0: any free port) and starts serving. Returns
  /// the port, or -1 when it cannot be bound.
  int start(int port);
  /// The run is over with exit status `status`; the page says so.
  void finished(int status) { status_ = status; }
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
  std::atomic<int> status_{-1};              // -1 while the scenario runs
  std::unique_ptr<httplib::Server> server_;  // set by start(), before the thread
  std::thread thread_;
};

}  // namespace zusim
